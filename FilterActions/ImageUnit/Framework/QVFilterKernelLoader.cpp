#include "Framework/QVFilterKernelLoader.h"

#include <atomic>
#include <cstdint>
#include <fstream>
#include <iterator>

#include "Foundation/NSBundle.h"
#include "Foundation/NSException.h"
#include "Foundation/NSURL.h"
#include "Framework/QVFilterImageUnitsConstants.h"

namespace {

std::atomic<std::size_t> kernelResourceLoads{0};

void appendUTF8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// UTF-16 code units from `bytes` (after the mark) to UTF-8; unpaired surrogates become U+FFFD.
std::string utf16ToUTF8(const std::string& bytes, std::size_t start, bool bigEndian) {
  std::string out;
  out.reserve(bytes.size() / 2);
  auto unit = [&](std::size_t i) -> std::uint32_t {
    const auto b0 = static_cast<unsigned char>(bytes[i]);
    const auto b1 = static_cast<unsigned char>(bytes[i + 1]);
    return bigEndian ? (std::uint32_t{b0} << 8 | b1) : (std::uint32_t{b1} << 8 | b0);
  };
  for (std::size_t i = start; i + 1 < bytes.size(); i += 2) {
    std::uint32_t u = unit(i);
    if (u >= 0xD800 && u <= 0xDBFF && i + 3 < bytes.size()) {
      const std::uint32_t low = unit(i + 2);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        appendUTF8(out, 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
        i += 2;
        continue;
      }
    }
    if (u >= 0xD800 && u <= 0xDFFF) u = 0xFFFD;
    appendUTF8(out, u);
  }
  return out;
}

std::string latin1ToUTF8(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (char c : bytes) appendUTF8(out, static_cast<unsigned char>(c));
  return out;
}

}  // namespace

CIKernelRef QVFilterKernelList::kernelAtIndex(std::size_t index) const {
  if (!present) return nullptr;
  if (index >= kernels.size())
    NSException::raise(NSRangeException, "*** -[__NSArray objectAtIndex:]: index " + std::to_string(index) +
                                              " beyond bounds " +
                                              (kernels.empty() ? std::string("for empty array")
                                                               : "[0 .. " + std::to_string(kernels.size() - 1) + "]"));
  return kernels[index];
}

std::optional<std::string> QVFilterStringWithContentsOfFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size < 0 || static_cast<std::uint64_t>(size) > kQVFilterKernelResourceMaximumSize) return std::nullopt;
  in.seekg(0, std::ios::beg);
  std::string bytes(static_cast<std::size_t>(size), '\0');
  if (size > 0 && !in.read(bytes.data(), size)) return std::nullopt;

  auto startsWith = [&](std::initializer_list<unsigned char> mark) {
    if (bytes.size() < mark.size()) return false;
    std::size_t i = 0;
    for (unsigned char m : mark)
      if (static_cast<unsigned char>(bytes[i++]) != m) return false;
    return true;
  };
  if (startsWith({0xEF, 0xBB, 0xBF})) return bytes.substr(3);
  if (startsWith({0xFF, 0xFE})) return utf16ToUTF8(bytes, 2, false);
  if (startsWith({0xFE, 0xFF})) return utf16ToUTF8(bytes, 2, true);
  if (QVIsValidUTF8(bytes)) return bytes;
  return latin1ToUTF8(bytes);
}

QVFilterKernelList QVFilterKernelsFromResourceInBundle(const std::shared_ptr<NSBundle>& bundle,
                                                       const std::string& name) {
  ++kernelResourceLoads;
  QVFilterKernelList list;
  if (!bundle) return list;
  // Top level of the bundle's resources, no subdirectory.
  const auto url = bundle->URLForResource(name, "cikernel");
  if (!url) return list;
  // Read errors are not inspected: unreadable text is a nil list, like a missing file.
  const std::optional<std::string> text = QVFilterStringWithContentsOfFile(url->path());
  if (!text) return list;
  list.present = true;
  list.kernels = CIKernel::kernelsWithString(*text);
  return list;
}

QVFilterKernelList QVFilterKernelsFromResource(const std::string& name) {
  return QVFilterKernelsFromResourceInBundle(NSBundle::bundleWithIdentifier(QVFilterImageUnitsBundleIdentifier), name);
}

std::size_t QVFilterKernelResourceLoadCount() { return kernelResourceLoads.load(); }
