// Helpers of the ImageIO tests: synthetic images, a minimal PNG writer (stored deflate blocks,
// so any chunk layout and any header can be crafted), EXIF and ICC blocks built byte by byte,
// and marker splicing for JPEGs.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <array>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ImageIO/ImageIO.h"

namespace imageio_test {

using Bytes = std::vector<std::uint8_t>;

inline std::uint32_t crc32(const std::uint8_t* data, std::size_t n, std::uint32_t crc = 0) {
  crc = ~crc;
  for (std::size_t i = 0; i < n; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

inline void putBE32(Bytes& b, std::uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<std::uint8_t>(v >> s));
}
inline void putBE16(Bytes& b, std::uint32_t v) {
  b.push_back(static_cast<std::uint8_t>(v >> 8));
  b.push_back(static_cast<std::uint8_t>(v));
}

// A zlib stream of stored (uncompressed) blocks.
inline Bytes zlibStored(const Bytes& data) {
  Bytes out = {0x78, 0x01};
  std::size_t pos = 0;
  do {
    const std::size_t n = std::min<std::size_t>(65535, data.size() - pos);
    const bool last = pos + n == data.size();
    out.push_back(last ? 1 : 0);
    out.push_back(static_cast<std::uint8_t>(n));
    out.push_back(static_cast<std::uint8_t>(n >> 8));
    out.push_back(static_cast<std::uint8_t>(~n));
    out.push_back(static_cast<std::uint8_t>((~n) >> 8));
    out.insert(out.end(), data.begin() + static_cast<std::ptrdiff_t>(pos), data.begin() + static_cast<std::ptrdiff_t>(pos + n));
    pos += n;
  } while (pos < data.size());
  std::uint32_t a = 1, b = 0;
  for (std::uint8_t c : data) {
    a = (a + c) % 65521;
    b = (b + a) % 65521;
  }
  putBE32(out, (b << 16) | a);
  return out;
}

inline void pngChunk(Bytes& png, const char* type, const Bytes& payload) {
  putBE32(png, static_cast<std::uint32_t>(payload.size()));
  const std::size_t start = png.size();
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), payload.begin(), payload.end());
  putBE32(png, crc32(png.data() + start, png.size() - start));
}

inline Bytes pngSignature() { return {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'}; }

inline Bytes ihdr(std::uint32_t w, std::uint32_t h, int depth, int colorType, int interlace = 0) {
  Bytes b;
  putBE32(b, w);
  putBE32(b, h);
  b.push_back(static_cast<std::uint8_t>(depth));
  b.push_back(static_cast<std::uint8_t>(colorType));
  b.push_back(0);
  b.push_back(0);
  b.push_back(static_cast<std::uint8_t>(interlace));
  return b;
}

struct PNGSpec {
  std::uint32_t width = 0, height = 0;
  int depth = 8, colorType = 6;
  bool interlaced = false;
  // Packed samples per row as the file stores them (no filter byte), row-major.
  std::vector<Bytes> rows;
  Bytes palette, trns, exif, iccProfile;
  bool srgb = false;
};

inline int channelsOf(int colorType) {
  switch (colorType) {
    case 0: return 1;
    case 2: return 3;
    case 3: return 1;
    case 4: return 2;
    default: return 4;
  }
}

// Extracts the sub-image of one Adam7 pass from packed rows (depth >= 8 only).
inline Bytes adam7Scanlines(const PNGSpec& s) {
  static const int xs[7] = {0, 4, 0, 2, 0, 1, 0}, ys[7] = {0, 0, 4, 0, 2, 0, 1};
  static const int dx[7] = {8, 8, 4, 4, 2, 2, 1}, dy[7] = {8, 8, 8, 4, 4, 2, 2};
  const std::size_t bpp = static_cast<std::size_t>(channelsOf(s.colorType) * s.depth / 8);
  Bytes out;
  for (int p = 0; p < 7; ++p) {
    for (std::uint32_t y = static_cast<std::uint32_t>(ys[p]); y < s.height; y += static_cast<std::uint32_t>(dy[p])) {
      Bytes line;
      for (std::uint32_t x = static_cast<std::uint32_t>(xs[p]); x < s.width; x += static_cast<std::uint32_t>(dx[p]))
        line.insert(line.end(), s.rows[y].begin() + static_cast<std::ptrdiff_t>(x * bpp),
                    s.rows[y].begin() + static_cast<std::ptrdiff_t>((x + 1) * bpp));
      if (line.empty()) continue;
      out.push_back(0);
      out.insert(out.end(), line.begin(), line.end());
    }
  }
  return out;
}

inline Bytes makePNG(const PNGSpec& s) {
  Bytes png = pngSignature();
  pngChunk(png, "IHDR", ihdr(s.width, s.height, s.depth, s.colorType, s.interlaced ? 1 : 0));
  if (!s.iccProfile.empty()) {
    Bytes p = {'t', 'e', 's', 't', 0, 0};
    Bytes z = zlibStored(s.iccProfile);
    p.insert(p.end(), z.begin(), z.end());
    pngChunk(png, "iCCP", p);
  }
  if (s.srgb) pngChunk(png, "sRGB", {0});
  if (!s.exif.empty()) pngChunk(png, "eXIf", s.exif);
  if (!s.palette.empty()) pngChunk(png, "PLTE", s.palette);
  if (!s.trns.empty()) pngChunk(png, "tRNS", s.trns);
  Bytes raw;
  if (s.interlaced) {
    raw = adam7Scanlines(s);
  } else {
    for (const auto& r : s.rows) {
      raw.push_back(0);
      raw.insert(raw.end(), r.begin(), r.end());
    }
  }
  pngChunk(png, "IDAT", zlibStored(raw));
  pngChunk(png, "IEND", {});
  return png;
}

// A TIFF block with one IFD0 entry: Orientation. With the "Exif\0\0" preamble unless bare.
inline Bytes exifWithOrientation(int orientation, bool bigEndian = false, bool preamble = true) {
  Bytes b;
  if (preamble) b = {'E', 'x', 'i', 'f', 0, 0};
  auto p16 = [&](std::uint32_t v) {
    if (bigEndian) {
      putBE16(b, v);
    } else {
      b.push_back(static_cast<std::uint8_t>(v));
      b.push_back(static_cast<std::uint8_t>(v >> 8));
    }
  };
  auto p32 = [&](std::uint32_t v) {
    if (bigEndian) {
      putBE32(b, v);
    } else {
      for (int s = 0; s < 32; s += 8) b.push_back(static_cast<std::uint8_t>(v >> s));
    }
  };
  if (bigEndian) {
    b.push_back('M');
    b.push_back('M');
  } else {
    b.push_back('I');
    b.push_back('I');
  }
  p16(42);
  p32(8);       // IFD0 offset
  p16(1);       // one entry
  p16(0x0112);  // Orientation
  p16(3);       // SHORT
  p32(1);       // count
  p16(static_cast<std::uint32_t>(orientation));
  p16(0);  // padding of the 4-byte value field
  p32(0);  // no next IFD
  return b;
}

// A minimal, valid ICC v2 display profile whose only tag is a textDescriptionType 'desc'.
inline Bytes iccProfileWithDescription(const std::string& description) {
  Bytes tag = {'d', 'e', 's', 'c', 0, 0, 0, 0};
  putBE32(tag, static_cast<std::uint32_t>(description.size() + 1));
  tag.insert(tag.end(), description.begin(), description.end());
  tag.push_back(0);
  for (int i = 0; i < 4 + 2 + 1 + 67; ++i) tag.push_back(0);  // Unicode and ScriptCode parts, empty
  while (tag.size() % 4) tag.push_back(0);
  Bytes p(128, 0);
  const std::uint32_t tagOffset = 128 + 4 + 12;
  const std::uint32_t total = tagOffset + static_cast<std::uint32_t>(tag.size());
  auto set32 = [&](std::size_t at, std::uint32_t v) {
    for (int k = 0; k < 4; ++k) p[at + static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(v >> (24 - 8 * k));
  };
  auto setTag = [&](std::size_t at, const char* s) { std::memcpy(&p[at], s, 4); };
  set32(0, total);
  set32(8, 0x02100000);
  setTag(12, "mntr");
  setTag(16, "RGB ");
  setTag(20, "XYZ ");
  setTag(36, "acsp");
  set32(68, 0x0000F6D6);  // D50 illuminant
  set32(72, 0x00010000);
  set32(76, 0x0000D32D);
  putBE32(p, 1);
  p.insert(p.end(), {'d', 'e', 's', 'c'});
  putBE32(p, tagOffset);
  putBE32(p, static_cast<std::uint32_t>(tag.size()));
  p.insert(p.end(), tag.begin(), tag.end());
  return p;
}

// Inserts a marker segment (APPn...) right after a JPEG's SOI.
inline Bytes spliceJPEGSegment(const Bytes& jpeg, std::uint8_t marker, const Bytes& payload) {
  Bytes out(jpeg.begin(), jpeg.begin() + 2);
  out.push_back(0xff);
  out.push_back(marker);
  putBE16(out, static_cast<std::uint32_t>(payload.size() + 2));
  out.insert(out.end(), payload.begin(), payload.end());
  out.insert(out.end(), jpeg.begin() + 2, jpeg.end());
  return out;
}

inline Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const Bytes& b) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

inline std::string tempDir() {
  auto dir = std::filesystem::temp_directory_path() / ("qv_imageio_test_" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  return dir.string();
}

// An 8-bit RGBA image whose pixels come from f(x, y) -> {r, g, b, a}.
template <class F>
CGImageRef makeImage(std::size_t w, std::size_t h, bool hasAlpha, F f) {
  auto img = CGImageCreateBlank(w, h, 8);
  img->hasAlpha = hasAlpha;
  for (std::size_t y = 0; y < h; ++y)
    for (std::size_t x = 0; x < w; ++x) {
      auto px = f(x, y);
      std::memcpy(img->row(y) + x * 4, px.data(), 4);
    }
  return img;
}

// Encodes an image to memory through a destination and a temporary file.
inline Bytes encode(const CGImageRef& image, const std::string& type, const Dictionary& props = {}) {
  static int counter = 0;
  const std::string path = tempDir() + "/enc" + std::to_string(counter++);
  auto dest = CGImageDestinationCreateWithURL(path, type);
  if (!dest || !CGImageDestinationAddImage(dest, image, props) || !CGImageDestinationFinalize(dest)) return {};
  Bytes b = readFile(path);
  std::filesystem::remove(path);
  return b;
}

inline std::array<std::uint8_t, 4> pixel(const CGImageRef& img, std::size_t x, std::size_t y) {
  std::array<std::uint8_t, 4> p{};
  std::memcpy(p.data(), img->row(y) + x * 4, 4);
  return p;
}

}  // namespace imageio_test
