#include "CoreImage/CIPlugIn.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"

namespace fs = std::filesystem;

namespace {

struct LoadedPlugIn {
  std::string path;        // canonical bundle path
  std::string identifier;  // CFBundleIdentifier
  void* handle = nullptr;  // never closed: registered classes live in the library
};

// Checks a shared library's ELF headers against the file before it is mapped: a library cut
// short maps pages past its end, and the loader touching them kills the process with SIGBUS.
// Empty when the file looks whole; otherwise what is wrong with it.
std::string elfLibraryProblem(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return {};  // dlopen reports why it cannot be opened
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return "not a regular file";
  const std::uint64_t size = std::uint64_t(st.st_size);
  auto readAt = [&](void* to, std::size_t n, std::uint64_t offset) {
    return offset <= size && n <= size - offset && ::pread(fd, to, n, off_t(offset)) == ssize_t(n);
  };
  Elf64_Ehdr eh{};
  if (!readAt(&eh, sizeof eh, 0) || std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0)
    return "not an ELF shared library";
  if (eh.e_ident[EI_CLASS] != ELFCLASS64 || eh.e_phentsize != sizeof(Elf64_Phdr) ||
      (eh.e_shnum != 0 && eh.e_shentsize != sizeof(Elf64_Shdr)))
    return "not a 64-bit ELF shared library";
  const std::string truncated = "truncated ELF file (" + std::to_string(size) + " bytes)";
  const auto within = [&](std::uint64_t offset, std::uint64_t length) {
    return offset <= size && length <= size - offset;
  };
  if (!within(eh.e_phoff, std::uint64_t(eh.e_phnum) * sizeof(Elf64_Phdr))) return truncated;
  if (!within(eh.e_shoff, std::uint64_t(eh.e_shnum) * sizeof(Elf64_Shdr))) return truncated;
  for (std::uint16_t i = 0; i < eh.e_phnum; ++i) {
    Elf64_Phdr ph{};
    if (!readAt(&ph, sizeof ph, eh.e_phoff + std::uint64_t(i) * sizeof ph)) return truncated;
    if (!within(ph.p_offset, ph.p_filesz)) return truncated;
  }
  for (std::uint16_t i = 0; i < eh.e_shnum; ++i) {
    Elf64_Shdr sh{};
    if (!readAt(&sh, sizeof sh, eh.e_shoff + std::uint64_t(i) * sizeof sh)) return truncated;
    if (sh.sh_type != SHT_NOBITS && !within(sh.sh_offset, sh.sh_size)) return truncated;
  }
  return {};
}

std::mutex& loaderMutex() {
  static std::mutex m;
  return m;
}

std::vector<LoadedPlugIn>& loadedTable() {
  static std::vector<LoadedPlugIn> plugIns;
  return plugIns;
}

std::string canonicalPath(const std::string& path) {
  std::error_code ec;
  fs::path p = fs::weakly_canonical(fs::path(path), ec);
  if (ec) return fs::absolute(fs::path(path), ec).lexically_normal().string();
  return p.string();
}

// The string stored under key in a dictionary value; null when absent or not a string.
const std::string* stringEntry(const Value& dictionary, const char* key) {
  const Dictionary* d = dictionary.dictionary();
  if (!d) return nullptr;
  auto it = d->find(key);
  return it == d->end() ? nullptr : it->second.string();
}

// A description value of class CIVector or CIColor is written as its string form; anything
// else is taken as the property list gives it.
Value attributeValueForClass(const Value& value, const std::string& attributeClass, std::string* problem) {
  if (!value.isString()) return value;
  if (attributeClass == "CIVector") {
    if (auto v = CIVector::vectorWithString(*value.string())) return Value(v);
    *problem = "cannot read \"" + *value.string() + "\" as a CIVector";
    return {};
  }
  if (attributeClass == "CIColor") {
    if (auto c = CIColor::colorWithString(*value.string())) return Value(c);
    *problem = "cannot read \"" + *value.string() + "\" as a CIColor";
    return {};
  }
  return value;
}

Dictionary convertInputAttributes(const std::string& className, const std::string& inputKey,
                                  const Dictionary& attributes, std::string* error) {
  Dictionary converted;
  auto classEntry = attributes.find(kCIAttributeClass);
  const std::string* attributeClass = classEntry == attributes.end() ? nullptr : classEntry->second.string();
  for (const auto& [key, value] : attributes) {
    if (attributeClass && (key == kCIAttributeDefault || key == kCIAttributeIdentity)) {
      std::string problem;
      Value v = attributeValueForClass(value, *attributeClass, &problem);
      if (!problem.empty()) {
        *error = "filter " + className + ", " + inputKey + ", " + key + ": " + problem;
        return {};
      }
      converted[key] = v;
    } else {
      converted[key] = value;
    }
  }
  return converted;
}

struct ClassDescription {
  std::string name;
  std::string displayName;
  std::vector<std::string> categories;
  Dictionary inputAttributes;
};

bool parseDescription(const Value& plist, std::vector<ClassDescription>* out, std::string* error) {
  const Dictionary* root = plist.dictionary();
  if (!root) {
    *error = "the filter description is not a dictionary";
    return false;
  }
  for (const auto& [className, entryValue] : *root) {
    const Dictionary* entry = entryValue.dictionary();
    if (!entry) {
      *error = "filter " + className + ": its description is not a dictionary";
      return false;
    }
    ClassDescription d;
    d.name = className;
    d.displayName = className;
    for (const auto& [key, value] : *entry) {
      if (key == kCIAttributeFilterDisplayName) {
        if (!value.isString()) {
          *error = "filter " + className + ": " + key + " is not a string";
          return false;
        }
        d.displayName = *value.string();
      } else if (key == kCIAttributeFilterCategories) {
        const Array* categories = value.array();
        if (!categories) {
          *error = "filter " + className + ": " + key + " is not an array";
          return false;
        }
        for (const Value& c : *categories) {
          if (!c.isString()) {
            *error = "filter " + className + ": " + key + " holds a value that is not a string";
            return false;
          }
          d.categories.push_back(*c.string());
        }
      } else if (key.rfind("input", 0) == 0) {
        const Dictionary* attributes = value.dictionary();
        if (!attributes) {
          *error = "filter " + className + ", " + key + ": the attributes are not a dictionary";
          return false;
        }
        Dictionary converted = convertInputAttributes(className, key, *attributes, error);
        if (!error->empty()) return false;
        d.inputAttributes[key] = Value(std::move(converted));
      }
      // Other keys (descriptions, reference documentation) are the host's business.
    }
    out->push_back(std::move(d));
  }
  return true;
}

}  // namespace

Value CIPlugIn::readFilterDescription(const std::string& path, std::string* error) {
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) {
    *error = "missing filter description " + path;
    return {};
  }
  Value plist = propertyListFromFile(path);
  if (plist.isNil()) {
    *error = "cannot read the filter description " + path + " (not a property list)";
    return {};
  }
  std::vector<ClassDescription> classes;
  std::string problem;
  if (!parseDescription(plist, &classes, &problem)) {
    *error = "garbled filter description " + path + ": " + problem;
    return {};
  }
  return plist;
}

bool CIPlugIn::loadPlugIn(const std::string& bundlePath, std::string* error) {
  std::string scratch;
  if (!error) error = &scratch;
  error->clear();

  const std::string path = canonicalPath(bundlePath);
  std::lock_guard lock(loaderMutex());
  for (const auto& p : loadedTable())
    if (p.path == path) return true;

  std::error_code ec;
  if (!fs::is_directory(path, ec)) {
    *error = "not a bundle directory";
    return false;
  }

  // Info.plist: identifier, principal class, executable.
  const std::string infoPath = (fs::path(path) / "Info.plist").string();
  if (!fs::is_regular_file(infoPath, ec)) {
    *error = "missing Info.plist";
    return false;
  }
  const Value info = propertyListFromFile(infoPath);
  if (!info.dictionary()) {
    *error = "Info.plist is not a property-list dictionary";
    return false;
  }
  const std::string* identifier = stringEntry(info, "CFBundleIdentifier");
  const std::string* principalClass = stringEntry(info, "NSPrincipalClass");
  const std::string* executable = stringEntry(info, "CFBundleExecutable");
  if (!identifier || identifier->empty()) {
    *error = "Info.plist has no CFBundleIdentifier";
    return false;
  }
  if (!principalClass || principalClass->empty()) {
    *error = "Info.plist has no NSPrincipalClass";
    return false;
  }
  if (!executable || executable->empty()) {
    *error = "Info.plist has no CFBundleExecutable";
    return false;
  }
  if (executable->find('/') != std::string::npos) {
    *error = "CFBundleExecutable \"" + *executable + "\" is not a file name";
    return false;
  }
  for (const auto& p : loadedTable())
    if (p.identifier == *identifier) return true;  // the same bundle, found on another path

  // The filter description is read before the library is opened, so that a bundle with a
  // broken description never runs any of its code.
  const std::string descriptionPath =
      (fs::path(path) / "Resources" / (std::string(kCIPlugInDescriptionResource) + "." + kCIPlugInDescriptionExtension))
          .string();
  if (!fs::is_regular_file(descriptionPath, ec)) {
    *error = "missing filter description Resources/" + std::string(kCIPlugInDescriptionResource) + "." +
             kCIPlugInDescriptionExtension;
    return false;
  }
  const Value descriptionPlist = propertyListFromFile(descriptionPath);
  if (descriptionPlist.isNil()) {
    *error = "garbled filter description Resources/" + std::string(kCIPlugInDescriptionResource) + "." +
             kCIPlugInDescriptionExtension + ": not a property list";
    return false;
  }
  std::vector<ClassDescription> described;
  std::string problem;
  if (!parseDescription(descriptionPlist, &described, &problem)) {
    *error = "garbled filter description Resources/" + std::string(kCIPlugInDescriptionResource) + "." +
             kCIPlugInDescriptionExtension + ": " + problem;
    return false;
  }

  // The bundle joins the process's bundle table, where the plug-in finds its own resources
  // by identifier.
  const std::shared_ptr<NSBundle> bundle = NSBundle::bundleWithPath(path);
  if (!bundle) {
    *error = "cannot open the bundle's Info.plist";
    return false;
  }

  // The library and its class table.
  const std::string libraryPath = bundle->executablePath();
  if (libraryPath.empty()) {
    *error = "missing library " + *executable;
    return false;
  }
  if (const std::string problem = elfLibraryProblem(libraryPath); !problem.empty()) {
    *error = "cannot open library " + *executable + ": " + problem;
    return false;
  }
  void* handle = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* reason = dlerror();
    *error = "cannot open library " + *executable + ": " + (reason ? reason : "unknown error");
    return false;
  }
  dlerror();
  auto entry = reinterpret_cast<CIPlugInClassTableFunction>(dlsym(handle, kCIPlugInClassTableSymbol));
  if (!entry) {
    *error = "library " + *executable + " exports no " + kCIPlugInClassTableSymbol;
    dlclose(handle);
    return false;
  }
  const CIPlugInClassTable* table = entry();
  if (!table) {
    *error = "library " + *executable + " returned no class table";
    dlclose(handle);
    return false;
  }
  if (table->version != kCIPlugInClassTableVersion) {
    *error = "library " + *executable + " has class table version " + std::to_string(table->version) + ", expected " +
             std::to_string(kCIPlugInClassTableVersion);
    dlclose(handle);
    return false;
  }

  // The principal class accepts (or refuses) the load.
  const CIPlugInClass* principal = table->classNamed(*principalClass);
  if (!principal) {
    *error = "principal class " + *principalClass + " not found in " + *executable;
    dlclose(handle);
    return false;
  }
  if (!principal->load) {
    *error = "principal class " + *principalClass + " has no load:";
    dlclose(handle);
    return false;
  }
  if (!principal->load(nullptr)) {
    *error = "load: of " + *principalClass + " returned NO";
    // The library ran code; keep it mapped rather than unload it under its own feet.
    return false;
  }

  // The classes of the description that the library offers are registered; one it lacks is
  // skipped (a description written ahead of its class must not take the bundle's other filters
  // down), but a description none of whose classes the library offers is a broken bundle.
  std::vector<const ClassDescription*> offered;
  std::string lacking;
  for (const auto& d : described) {
    const CIPlugInClass* cls = table->classNamed(d.name);
    if (cls && cls->makeFilter) {
      offered.push_back(&d);
    } else {
      lacking += (lacking.empty() ? "" : ", ") + d.name;
    }
  }
  if (offered.empty() && !described.empty()) {
    *error = *executable + " offers none of the filter classes its description names (" + lacking + ")";
    return false;
  }
  for (const ClassDescription* d : offered) {
    CIFilterRegistration registration;
    registration.name = d->name;
    registration.make = table->classNamed(d->name)->makeFilter;
    registration.displayName = d->displayName;
    registration.categories = d->categories;
    registration.inputAttributes = d->inputAttributes;
    CIFilter::registerFilter(std::move(registration));
  }
  loadedTable().push_back(LoadedPlugIn{path, *identifier, handle});
  return true;
}

std::vector<std::string> CIPlugIn::loadAllPlugIns(const std::vector<std::string>& searchPath) {
  std::vector<std::string> failures;
  std::set<std::string> tried;
  auto loadOne = [&](const std::string& bundle) {
    const std::string canonical = canonicalPath(bundle);
    if (!tried.insert(canonical).second) return;
    std::string error;
    if (!loadPlugIn(bundle, &error)) failures.push_back(bundle + ": " + error);
  };
  for (const std::string& entry : searchPath) {
    if (entry.empty()) continue;
    std::error_code ec;
    const fs::path p(entry);
    if (p.extension() == ".plugin") {
      loadOne(entry);
      continue;
    }
    if (!fs::is_directory(p, ec)) continue;
    std::vector<std::string> bundles;
    for (fs::directory_iterator it(p, ec), end; !ec && it != end; it.increment(ec))
      if (it->path().extension() == ".plugin") bundles.push_back(it->path().string());
    std::sort(bundles.begin(), bundles.end());
    for (const auto& b : bundles) loadOne(b);
  }
  return failures;
}

std::vector<std::string> CIPlugIn::loadedPlugIns() {
  std::lock_guard lock(loaderMutex());
  std::vector<std::string> paths;
  for (const auto& p : loadedTable()) paths.push_back(p.path);
  return paths;
}
