// `qvfilter textures`: the plug-in's texture catalogue.
//
//   qvfilter textures [--tag T]... [--json] [--bundle DIR]   list textures (all given tags)
//   qvfilter textures resolve KEY [--hint IDENTIFIER]        what a name, identifier or tag resolves to
//   qvfilter textures check [--bundle DIR]                   validate the index and its files
//   qvfilter textures gallery DIR [--bundle DIR]             thumbnails and an index.html by tag
//
// The catalogue is read from the loaded plug-in bundle (or from --bundle, a bundle directory
// that is not loaded, e.g. one being built). Resolution goes through the plug-in's own texture
// store (TextureCatalogue.h), so that it picks exactly as filters do.
#include <optional>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Command.h"
#include "Foundation/NSBundle.h"
#include "Foundation/NSURL.h"
#include "Foundation/PropertyList.h"
#include "ImageIO/ImageIO.h"
#include "PlugIns.h"
#include "TextureCatalogue.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kBundleIdentifier = "org.qvfilter.filters.imageunits";
constexpr const char* kTextureScheme = "x-qvfilter-texture";
constexpr const char* kTagScheme = "x-qvfilter-tag";
constexpr const char* kTexturesFolder = "Textures";
const std::vector<std::string> kKinds = {"mask", "composite", "tile", "border"};
const std::set<std::string> kAttributes = {"MinX", "MidX", "MaxX", "MinY", "MidY", "MaxY", "width", "height"};

struct Catalogue {
  std::shared_ptr<NSBundle> bundle;
  std::string identifier;  // the bundle's identifier
  Value textures;          // the index's "textures" dictionary (nil when unreadable)
  std::string indexPath;   // "" when the index is missing
  std::string indexError;  // why the index cannot be used
};

std::shared_ptr<NSBundle> pluginBundle(const std::string& bundleDir) {
  if (!bundleDir.empty()) {
    auto bundle = NSBundle::bundleWithPath(bundleDir);
    if (!bundle) throw qv::CommandError{"not a bundle (no readable Info.plist): " + bundleDir};
    return bundle;
  }
  qvLoadPlugIns();
  auto bundle = NSBundle::bundleWithIdentifier(kBundleIdentifier);
  if (!bundle) throw qv::CommandError{std::string("the plug-in bundle ") + kBundleIdentifier + " is not loaded"};
  return bundle;
}

Catalogue loadCatalogue(const std::string& bundleDir) {
  Catalogue c;
  c.bundle = pluginBundle(bundleDir);
  c.identifier = c.bundle->bundleIdentifier();
  if (c.identifier.empty()) c.identifier = kBundleIdentifier;
  c.indexPath = c.bundle->pathForResource("TextureIndex", "plist");
  if (c.indexPath.empty()) {
    c.indexError = "Resources/TextureIndex.plist is missing";
    return c;
  }
  const Value index = propertyListFromFile(c.indexPath);
  if (!index.dictionary()) {
    c.indexError = "Resources/TextureIndex.plist is not a readable property list holding a dictionary";
    return c;
  }
  if (!index["textures"].dictionary()) {
    c.indexError = "Resources/TextureIndex.plist has no \"textures\" dictionary";
    return c;
  }
  c.textures = index["textures"];
  return c;
}

std::string escaped(const std::string& s) { return stringByAddingPercentEscapesUsingEncoding(s).value_or(s); }

std::string identifierFor(const Catalogue& c, const std::string& key) {
  return std::string(kTextureScheme) + "://" + c.identifier + "/" + escaped(key);
}
std::string tagKeyFor(const Catalogue& c, const std::string& tag) {
  return std::string(kTagScheme) + "://" + c.identifier + "/" + escaped(tag);
}

std::vector<std::string> tagsOf(const Value& record) {
  std::vector<std::string> tags;
  const Value value = record["tags"];
  if (const Array* a = value.array())
    for (const auto& t : *a)
      if (const std::string* s = t.string()) tags.push_back(*s);
  return tags;
}

std::string stringOf(const Value& v) { return v.string() ? *v.string() : std::string(); }

// The texture file's path, when its name stays inside Textures/ and the file exists.
std::string texturePath(const Catalogue& c, const Value& record) {
  const std::string name = stringOf(record["fileName"]);
  if (name.empty()) return {};
  return c.bundle->pathForResource(name, "", kTexturesFolder);
}

const Dictionary& texturesOrFail(const Catalogue& c) {
  if (!c.textures.dictionary()) throw qv::CommandError{"cannot read the texture index: " + c.indexError};
  return *c.textures.dictionary();
}

// ---- list ----

struct ListOptions {
  std::vector<std::string> tags;
  bool json = false;
  std::string bundle;
};

void runList(const ListOptions& options) {
  const Catalogue c = loadCatalogue(options.bundle);
  const Dictionary& textures = texturesOrFail(c);
  std::map<std::string, std::pair<std::string, Value>> selected;  // identifier -> (key, record)
  for (const auto& [key, record] : textures) {
    const auto tags = tagsOf(record);
    bool all = true;
    for (const auto& t : options.tags) all = all && std::find(tags.begin(), tags.end(), t) != tags.end();
    if (all) selected.emplace(identifierFor(c, key), std::make_pair(key, record));
  }
  if (selected.empty() && !options.tags.empty()) {
    std::string list;
    for (const auto& t : options.tags) list += (list.empty() ? "" : ", ") + t;
    throw qv::CommandError{"no texture carries the tag(s) " + list};
  }
  std::string out;
  auto json = nlohmann::json::array();
  for (const auto& [identifier, entry] : selected) {
    const auto& [key, record] = entry;
    const std::string path = texturePath(c, record);
    long long width = 0, height = 0;
    if (!path.empty()) {
      if (auto source = CGImageSourceCreateWithURL(path)) {
        const Dictionary props = CGImageSourceCopyPropertiesAtIndex(source, 0);
        if (auto it = props.find(kCGImagePropertyPixelWidth); it != props.end()) width = it->second.integerValue();
        if (auto it = props.find(kCGImagePropertyPixelHeight); it != props.end()) height = it->second.integerValue();
      }
    }
    const auto tags = tagsOf(record);
    const std::string display = stringOf(record["displayName"]);
    const std::string file = stringOf(record["fileName"]);
    if (options.json) {
      json.push_back({{"identifier", identifier},
                      {"key", key},
                      {"displayName", display.empty() ? identifier : display},
                      {"tags", tags},
                      {"fileName", file},
                      {"width", width},
                      {"height", height}});
    } else {
      std::string tagList;
      for (const auto& t : tags) tagList += (tagList.empty() ? "" : ",") + t;
      out += identifier + "\t" + (display.empty() ? identifier : display) + "\t" + tagList + "\t" + file + "\t" +
             std::to_string(width) + "x" + std::to_string(height) + "\n";
    }
  }
  if (options.json) out = json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
}

// ---- resolve ----

struct ResolveOptions {
  std::string key;
  std::string hint;
};

void runResolve(const ResolveOptions& options) {
  const Catalogue c = loadCatalogue("");
  const Dictionary& textures = texturesOrFail(c);
  // A bare name is a texture key when the index has one, else a tag.
  std::string key = options.key;
  if (key.find("://") == std::string::npos) {
    if (textures.count(key)) {
      key = identifierFor(c, key);
    } else {
      bool isTag = false;
      for (const auto& [k, record] : textures) {
        const auto tags = tagsOf(record);
        isTag = isTag || std::find(tags.begin(), tags.end(), key) != tags.end();
      }
      if (!isTag) throw qv::CommandError{"no texture or tag is named " + key};
      key = tagKeyFor(c, key);
    }
  }
  const auto url = NSURL::URLWithString(key);
  if (!url) throw qv::CommandError{"not a URL: " + key};
  if (url->scheme() != kTextureScheme && url->scheme() != kTagScheme)
    throw qv::CommandError{"not a texture identifier or tag key (scheme " + std::string(kTextureScheme) + " or " +
                           kTagScheme + "): " + key};
  if (!options.hint.empty() && !NSURL::URLWithString(options.hint))
    throw qv::CommandError{"the hint is not a URL: " + options.hint};
  if (!qv::textureResolutionAvailable())
    throw qv::CommandError{"the loaded plug-in does not offer texture resolution"};
  const std::optional<std::string> resolved = qv::resolveTextureName(key, options.hint);
  if (!resolved) throw qv::CommandError{"resolves to no texture: " + key};
  const std::string identifier = *resolved;
  const auto resolvedURL = NSURL::URLWithString(identifier);
  const std::string textureKey = resolvedURL ? resolvedURL->lastPathComponent() : std::string();
  std::string out = identifier + "\n";
  if (!textures.count(textureKey)) {
    std::fwrite(out.data(), 1, out.size(), stdout);
    throw qv::CommandError{"the identifier names no texture of the catalogue: " + identifier};
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
}

// ---- check ----

struct CheckOptions {
  std::string bundle;
};

bool nameLeavesFolder(const std::string& name) {
  if (name.empty() || name.front() == '/') return true;
  if (name.find('/') != std::string::npos || name.find('\\') != std::string::npos) return true;
  return name == "." || name == "..";
}

std::vector<std::string> constraintProblems(const Value& constraints) {
  std::vector<std::string> problems;
  const Array* rules = constraints.array();
  if (!rules) return {"\"constraints\" is not an array"};
  bool positioned = false;
  for (std::size_t i = 0; i < rules->size(); ++i) {
    const Value& r = (*rules)[i];
    const std::string where = "constraint " + std::to_string(i + 1) + ": ";
    if (!r.dictionary()) {
      problems.push_back(where + "not a dictionary");
      continue;
    }
    const Value dst = r["destinationAttribute"], src = r["sourceAttribute"];
    if (!dst.string() || !kAttributes.count(*dst.string()))
      problems.push_back(where + "unknown destinationAttribute " + (dst.string() ? *dst.string() : dst.description()));
    if (!src.string() || !kAttributes.count(*src.string()))
      problems.push_back(where + "unknown sourceAttribute " + (src.string() ? *src.string() : src.description()));
    for (const char* numberKey : {"scale", "offset"}) {
      const Value v = r[numberKey];
      if (v && (!v.isNumber() || v.isBoolean())) problems.push_back(where + "\"" + numberKey + "\" is not a number");
    }
    if (r["offset"] && src.string() && src.string()->find('X') == std::string::npos &&
        src.string()->find('Y') == std::string::npos)
      problems.push_back(where + "an offset cannot go with the source attribute " + *src.string() +
                         " (only MinX MidX MaxX MinY MidY MaxY)");
    if (dst.string()) {
      const bool size = *dst.string() == "width" || *dst.string() == "height";
      if (size && positioned)
        problems.push_back(where + "size rule " + *dst.string() + " after a position rule (size rules come first)");
      if (!size) positioned = true;
    }
  }
  return problems;
}

void runCheck(const CheckOptions& options) {
  const Catalogue c = loadCatalogue(options.bundle);
  std::vector<std::string> problems;
  if (!c.textures.dictionary()) {
    problems.push_back("index: " + c.indexError);
  } else {
    std::map<std::string, int> kindCounts;
    for (const auto& [key, record] : *c.textures.dictionary()) {
      const std::string where = "texture " + key + ": ";
      if (!record.dictionary()) {
        problems.push_back(where + "the record is not a dictionary");
        continue;
      }
      if (key.find('/') != std::string::npos) problems.push_back(where + "the key contains \"/\"");
      if (!stringOf(record["displayName"]).size()) problems.push_back(where + "no displayName");
      const auto tags = tagsOf(record);
      if (tags.empty()) problems.push_back(where + "no tags");
      for (const auto& k : kKinds)
        if (std::find(tags.begin(), tags.end(), k) != tags.end()) ++kindCounts[k];
      const std::string name = stringOf(record["fileName"]);
      if (name.empty()) {
        problems.push_back(where + "no fileName");
      } else if (nameLeavesFolder(name)) {
        problems.push_back(where + "file " + name + " is outside Textures/");
      } else {
        const std::string path = texturePath(c, record);
        const fs::path raw = fs::path(c.bundle->resourcePath()) / kTexturesFolder / name;
        std::error_code ec;
        if (path.empty() && fs::is_symlink(raw, ec)) {
          problems.push_back(where + "file " + name + " is a link that leaves Textures/");
        } else if (path.empty()) {
          problems.push_back(where + "file " + name + " is missing");
        } else {
          auto source = CGImageSourceCreateWithURL(path);
          CGImageRef thumb;
          if (source && CGImageSourceGetCount(source) > 0)
            thumb = CGImageSourceCreateThumbnailAtIndex(
                source, 0, Dictionary{{kCGImageSourceThumbnailMaxPixelSize, 64},
                                      {kCGImageSourceCreateThumbnailFromImageAlways, Value::boolean(true)}});
          if (!thumb) {
            const std::string why = source ? CGImageSourceGetLastError(source) : CGImageSourceGetCreateError();
            problems.push_back(where + "file " + name + " is not a readable image" + (why.empty() ? "" : " (" + why + ")"));
          }
        }
      }
      if (record["constraints"])
        for (const auto& p : constraintProblems(record["constraints"])) problems.push_back(where + p);
    }
    for (const auto& k : kKinds)
      if (!kindCounts[k]) problems.push_back("tag " + k + ": no texture carries it");
  }
  if (!problems.empty()) {
    std::string out;
    for (const auto& p : problems) out += p + "\n";
    std::fwrite(out.data(), 1, out.size(), stdout);
    throw qv::CommandError{std::to_string(problems.size()) + " problem(s) in the texture catalogue"};
  }
  const std::string ok = "texture catalogue: " + std::to_string(c.textures.dictionary()->size()) + " textures, no problems\n";
  std::fwrite(ok.data(), 1, ok.size(), stdout);
}

// ---- gallery ----

struct GalleryOptions {
  std::string dir;
  std::string bundle;
  int size = 320;
};

std::string htmlEscape(const std::string& s) {
  std::string o;
  for (char ch : s) {
    switch (ch) {
      case '&': o += "&amp;"; break;
      case '<': o += "&lt;"; break;
      case '>': o += "&gt;"; break;
      case '"': o += "&quot;"; break;
      default: o += ch;
    }
  }
  return o;
}

// File names of thumbnails: the texture key with anything but [A-Za-z0-9._-] replaced.
std::string safeName(const std::string& key) {
  std::string o;
  for (unsigned char ch : key) o += (std::isalnum(ch) || ch == '-' || ch == '_' || ch == '.') ? char(ch) : '_';
  return o;
}

void runGallery(const GalleryOptions& options) {
  if (options.size < 16 || options.size > 2048) throw qv::CommandError{"--size must be between 16 and 2048"};
  const Catalogue c = loadCatalogue(options.bundle);
  const Dictionary& textures = texturesOrFail(c);
  std::error_code ec;
  fs::create_directories(fs::path(options.dir) / "thumbnails", ec);
  if (ec) throw qv::CommandError{"cannot create " + options.dir + ": " + ec.message()};

  struct Item {
    std::string key, display, thumb, file;
    long long width = 0, height = 0;
  };
  std::map<std::string, std::vector<Item>> byTag;
  int failures = 0;
  for (const auto& [key, record] : textures) {
    Item item{key, stringOf(record["displayName"]), "", stringOf(record["fileName"])};
    if (item.display.empty()) item.display = key;
    const std::string path = texturePath(c, record);
    auto source = path.empty() ? nullptr : CGImageSourceCreateWithURL(path);
    if (source) {
      const Dictionary props = CGImageSourceCopyPropertiesAtIndex(source, 0);
      if (auto it = props.find(kCGImagePropertyPixelWidth); it != props.end()) item.width = it->second.integerValue();
      if (auto it = props.find(kCGImagePropertyPixelHeight); it != props.end()) item.height = it->second.integerValue();
      CGImageRef thumb = CGImageSourceCreateThumbnailAtIndex(
          source, 0,
          Dictionary{{kCGImageSourceThumbnailMaxPixelSize, options.size},
                     {kCGImageSourceCreateThumbnailFromImageAlways, Value::boolean(true)},
                     {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)}});
      if (thumb) {
        const bool alpha = thumb->hasAlpha;
        item.thumb = "thumbnails/" + safeName(key) + (alpha ? ".png" : ".jpg");
        auto dest = CGImageDestinationCreateWithURL((fs::path(options.dir) / item.thumb).string(),
                                                    alpha ? kUTTypePNG : kUTTypeJPEG);
        if (!dest || !CGImageDestinationAddImage(dest, thumb, Dictionary{{kCGImageDestinationLossyCompressionQuality, 0.85}}) ||
            !CGImageDestinationFinalize(dest)) {
          throw qv::CommandError{"cannot write " + (fs::path(options.dir) / item.thumb).string()};
        }
      }
    }
    if (item.thumb.empty()) ++failures;
    auto tags = tagsOf(record);
    if (tags.empty()) tags.push_back("(untagged)");
    for (const auto& t : tags) byTag[t].push_back(item);
  }

  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>Texture catalogue</title>\n"
      "<style>\nbody{font-family:system-ui,sans-serif;background:#1d1f22;color:#e8e8e8;margin:2em}\n"
      "h2{border-bottom:1px solid #444;padding-bottom:.2em;margin-top:1.6em}\n"
      ".grid{display:flex;flex-wrap:wrap;gap:18px}\n"
      "figure{margin:0;width:" + std::to_string(options.size) + "px}\n"
      "figure .img{height:" + std::to_string(options.size) + "px;display:flex;align-items:center;justify-content:center;"
      "background:repeating-conic-gradient(#555 0 25%,#777 0 50%) 0 0/16px 16px}\n"
      "figure img{max-width:100%;max-height:100%}\nfigcaption{font-size:13px;margin-top:4px}\n"
      "figcaption small{color:#9a9a9a;display:block}\n.missing{color:#f77}\n</style>\n</head>\n<body>\n"
      "<h1>Texture catalogue</h1>\n<p>" + std::to_string(textures.size()) + " textures, grouped by tag.</p>\n";
  // The four kinds first, then the other tags alphabetically.
  std::vector<std::string> order;
  for (const auto& k : kKinds)
    if (byTag.count(k)) order.push_back(k);
  for (const auto& [t, items] : byTag)
    if (std::find(order.begin(), order.end(), t) == order.end()) order.push_back(t);
  for (const auto& tag : order) {
    html += "<section id=\"tag-" + htmlEscape(safeName(tag)) + "\">\n<h2>" + htmlEscape(tag) + " (" +
            std::to_string(byTag[tag].size()) + ")</h2>\n<div class=\"grid\">\n";
    for (const auto& item : byTag[tag]) {
      html += "<figure><div class=\"img\">";
      html += item.thumb.empty() ? "<span class=\"missing\">no image</span>"
                                 : "<img src=\"" + htmlEscape(item.thumb) + "\" alt=\"" + htmlEscape(item.display) + "\">";
      html += "</div><figcaption>" + htmlEscape(item.display) + "<small>" + htmlEscape(identifierFor(c, item.key)) +
              "</small><small>" + htmlEscape(item.file) + " &middot; " + std::to_string(item.width) + "&times;" +
              std::to_string(item.height) + "</small></figcaption></figure>\n";
    }
    html += "</div>\n</section>\n";
  }
  html += "</body>\n</html>\n";
  const fs::path indexPath = fs::path(options.dir) / "index.html";
  std::ofstream out(indexPath, std::ios::binary);
  out << html;
  out.close();
  if (!out) throw qv::CommandError{"cannot write " + indexPath.string()};
  std::printf("%s: %zu textures\n", indexPath.c_str(), textures.size());
  if (failures) throw qv::CommandError{std::to_string(failures) + " texture(s) could not be read"};
}

const qv::CommandRegistration registration(60, [](CLI::App& app) {
  CLI::App* cmd = app.add_subcommand("textures", "List, resolve, check and show the plug-in's textures");
  cmd->require_subcommand(0, 1);
  auto list = std::make_shared<ListOptions>();
  cmd->add_option("--tag", list->tags, "Only textures carrying this tag (repeat: all of them)");
  cmd->add_flag("--json", list->json,
                "Print a JSON array of {identifier, key, displayName, tags, fileName, width, height}");
  cmd->add_option("--bundle", list->bundle, "Read this bundle directory instead of the loaded plug-in");

  auto resolve = std::make_shared<ResolveOptions>();
  CLI::App* r = cmd->add_subcommand("resolve", "Print the texture identifier a texture name, identifier or tag resolves to");
  r->add_option("KEY", resolve->key, "A texture key, a tag, a texture identifier or a tag key")->required();
  r->add_option("--hint", resolve->hint, "The identifier in use (a tag then resolves to another texture when it can)");
  r->callback([resolve] { runResolve(*resolve); });

  auto check = std::make_shared<CheckOptions>();
  CLI::App* k = cmd->add_subcommand("check", "Validate the texture index: files, images, tags and constraints");
  k->add_option("--bundle", check->bundle, "Check this bundle directory instead of the loaded plug-in");
  k->callback([check] { runCheck(*check); });

  auto gallery = std::make_shared<GalleryOptions>();
  CLI::App* g = cmd->add_subcommand("gallery", "Write a thumbnail per texture and an index.html grouped by tag");
  g->add_option("DIR", gallery->dir, "Output directory")->required();
  g->add_option("--size", gallery->size, "Larger side of the thumbnails in pixels (default 320)");
  g->add_option("--bundle", gallery->bundle, "Read this bundle directory instead of the loaded plug-in");
  g->callback([gallery] { runGallery(*gallery); });

  cmd->callback([cmd, list] {
    if (cmd->get_subcommands().empty()) runList(*list);
  });
});

}  // namespace
