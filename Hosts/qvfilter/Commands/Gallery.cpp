// `qvfilter gallery IN DIR [--filters A,B]`: every filter of the loaded plug-in bundles (or the
// named ones) applied with its defaults to one image. Writes DIR/original.png, one
// DIR/<FilterName>.png per filter and DIR/index.html, a self-contained contact sheet of
// thumbnails with the filter names and display names, the original first. One line per filter
// on stdout and a summary; a filter that throws, gives no image or an unrenderable one is listed
// with the reason and the others go on. Exit 1 when any filter failed.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIPlugIn.h"
#include "PlugIns.h"
#include "Recipe.h"
#include "ValueParsing.h"

namespace fs = std::filesystem;

namespace {

struct GalleryOptions {
  std::string input;
  std::string directory;
  std::string filters;
  int threads = 0;
};

struct Entry {
  std::string name;
  std::string displayName;
  std::string file;    // written file name inside DIR; empty when the filter failed
  std::string reason;  // why it failed
  double width = 0, height = 0;
};

std::string htmlEscape(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string whole(double v) {
  std::ostringstream s;
  s << static_cast<long long>(v);
  return s.str();
}

// "A,B , C" -> {A, B, C}; an empty item or an unknown filter is an error.
std::vector<std::string> parseFilterList(const std::string& text) {
  std::vector<std::string> names;
  std::string item;
  std::istringstream in(text);
  while (std::getline(in, item, ',')) {
    const auto first = item.find_first_not_of(" \t"), last = item.find_last_not_of(" \t");
    if (first == std::string::npos) throw qv::CommandError{"--filters has an empty name: \"" + text + "\""};
    item = item.substr(first, last - first + 1);
    if (!CIFilter::registrationForName(item)) throw qv::CommandError{"unknown filter: " + item};
    if (std::find(names.begin(), names.end(), item) == names.end()) names.push_back(item);
  }
  if (names.empty()) throw qv::CommandError{"--filters names no filter"};
  return names;
}

// The rectangle of `image` to write: its extent in whole pixels, or the input's where the
// result is infinite. Throws a reason when there is nothing sensible to write.
CGRect boundsToWrite(const CIImage& image, const CGRect& inputExtent) {
  CGRect e = image.extent();
  if (CGRectIsInfinite(e)) e = inputExtent;
  const CGRect bounds = CGRectIntegral(e);
  if (CGRectIsNull(bounds) || CGRectIsEmpty(bounds)) throw std::runtime_error("the result is empty");
  if (bounds.size.width * bounds.size.height > static_cast<double>(qv::kMaxOutputPixels)) {
    throw std::runtime_error("the result of " + whole(bounds.size.width) + "x" + whole(bounds.size.height) +
                             " pixels is more than the limit of " + std::to_string(qv::kMaxOutputPixels));
  }
  return bounds;
}

Entry renderOne(const std::string& name, const CIImage& input, const fs::path& dir, const CIContext& context) {
  Entry entry;
  entry.name = name;
  const CIFilterRegistration* registration = CIFilter::registrationForName(name);
  entry.displayName = registration && !registration->displayName.empty() ? registration->displayName : name;
  try {
    CIFilterRef filter = CIFilter::filterWithName(name);
    if (!filter) throw std::runtime_error("the filter cannot be created");
    filter->setDefaults();
    filter->setValue(Value(input), kCIInputImageKey);
    filter->setCalculatedValues();
    const CIImage out = filter->outputImage();
    if (!out) throw std::runtime_error("no output image (nil)");
    const CGRect bounds = boundsToWrite(out, input.extent());
    const std::string file = name + ".png";
    context.writeToFile(out, (dir / file).string(), bounds);
    entry.file = file;
    entry.width = bounds.size.width;
    entry.height = bounds.size.height;
  } catch (const std::exception& e) {
    entry.reason = e.what();
  } catch (...) {
    entry.reason = "unknown failure";
  }
  if (entry.file.empty() && entry.reason.empty()) entry.reason = "unknown failure";
  return entry;
}

std::string contactSheet(const std::string& inputName, const std::vector<Entry>& entries) {
  std::ostringstream h;
  h << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
    << "<title>Filter gallery: " << htmlEscape(inputName) << "</title>\n<style>\n"
    << "body { font: 14px/1.4 system-ui, sans-serif; margin: 24px; background: #1e1f22; color: #e6e6e6; }\n"
    << "h1 { font-size: 20px; font-weight: 600; margin: 0 0 16px; }\n"
    << ".grid { display: grid; grid-template-columns: repeat(auto-fill, minmax(220px, 1fr)); gap: 16px; }\n"
    << "figure { margin: 0; background: #2b2d31; border-radius: 8px; padding: 10px; }\n"
    << "figure img { width: 100%; height: 160px; object-fit: contain; background: "
       "repeating-conic-gradient(#3a3c41 0 25%, #2f3136 0 50%) 0 0 / 16px 16px; border-radius: 4px; }\n"
    << "figcaption { margin-top: 8px; }\n.name { font-weight: 600; }\n"
    << ".display { color: #b5bac1; }\n.size { color: #80848e; font-size: 12px; }\n"
    << ".failed .reason { color: #f28b82; height: 160px; display: flex; align-items: center; "
       "justify-content: center; text-align: center; background: #3a2326; border-radius: 4px; padding: 8px; }\n"
    << "</style>\n</head>\n<body>\n<h1>Filter gallery: " << htmlEscape(inputName) << "</h1>\n<div class=\"grid\">\n";
  for (const Entry& e : entries) {
    if (!e.file.empty()) {
      h << "<figure class=\"filter\" id=\"" << htmlEscape(e.name) << "\">\n<a href=\"" << htmlEscape(e.file)
        << "\"><img src=\"" << htmlEscape(e.file) << "\" alt=\"" << htmlEscape(e.displayName) << "\"></a>\n";
    } else {
      h << "<figure class=\"filter failed\" id=\"" << htmlEscape(e.name) << "\">\n<div class=\"reason\">Failed: "
        << htmlEscape(e.reason) << "</div>\n";
    }
    h << "<figcaption><div class=\"name\">" << htmlEscape(e.name) << "</div><div class=\"display\">"
      << htmlEscape(e.displayName) << "</div>";
    if (!e.file.empty()) h << "<div class=\"size\">" << whole(e.width) << " &times; " << whole(e.height) << "</div>";
    h << "</figcaption>\n</figure>\n";
  }
  h << "</div>\n</body>\n</html>\n";
  return h.str();
}

void runGallery(const GalleryOptions& options) {
  qvLoadPlugIns();
  qv::prepareFilterRegistry();
  const std::vector<std::string> names =
      options.filters.empty() ? qvPlugInFilterNames() : parseFilterList(options.filters);
  if (names.empty()) throw qv::CommandError{"no plug-in filters are loaded (is the bundle installed?)"};

  CIImage input;
  try {
    input = qv::imageFromFile(options.input);
  } catch (const qv::ValueError& e) {
    throw qv::CommandError{e.what()};
  }
  if (!input) throw qv::CommandError{"cannot read " + options.input};

  const fs::path dir(options.directory);
  std::error_code ec;
  if (fs::exists(dir, ec) && !fs::is_directory(dir, ec)) throw qv::CommandError{options.directory + " is not a directory"};
  fs::create_directories(dir, ec);
  if (ec) throw qv::CommandError{"cannot create " + options.directory + ": " + ec.message()};

  CIContextOptions contextOptions;
  contextOptions.threads = options.threads;
  const CIContext context(contextOptions);

  std::vector<Entry> entries;
  Entry original;
  original.name = "original";
  original.displayName = "Original";
  try {
    const CGRect bounds = boundsToWrite(input, input.extent());
    context.writeToFile(input, (dir / "original.png").string(), bounds);
    original.file = "original.png";
    original.width = bounds.size.width;
    original.height = bounds.size.height;
  } catch (const std::exception& e) {
    throw qv::CommandError{CIContext::writeErrorMessage((dir / "original.png").string(), e.what())};
  }
  entries.push_back(original);

  std::size_t failed = 0;
  for (const std::string& name : names) {
    Entry e = renderOne(name, input, dir, context);
    if (e.file.empty()) {
      ++failed;
      std::printf("%s: FAILED: %s\n", e.name.c_str(), e.reason.c_str());
    } else {
      std::printf("%s (%s) -> %s (%sx%s)\n", e.name.c_str(), e.displayName.c_str(), (dir / e.file).c_str(),
                  whole(e.width).c_str(), whole(e.height).c_str());
    }
    std::fflush(stdout);
    entries.push_back(std::move(e));
  }

  const fs::path index = dir / "index.html";
  {
    std::ofstream out(index, std::ios::binary | std::ios::trunc);
    out << contactSheet(fs::path(options.input).filename().string(), entries);
    if (!out) throw qv::CommandError{"cannot write " + index.string()};
  }
  std::printf("%zu filters: %zu written, %zu failed; contact sheet %s\n", names.size(), names.size() - failed, failed,
              index.c_str());
  if (failed) throw qv::CommandError{std::to_string(failed) + " of " + std::to_string(names.size()) + " filters failed"};
}

const qv::CommandRegistration registration(37, [](CLI::App& app) {
  auto options = std::make_shared<GalleryOptions>();
  CLI::App* cmd = app.add_subcommand("gallery", "Apply every plug-in filter with its defaults and write a contact sheet");
  cmd->add_option("input", options->input, "Input image file")->required();
  cmd->add_option("directory", options->directory, "Output folder (created if missing)")->required();
  cmd->add_option("--filters", options->filters, "Only these filters, comma-separated (any registered name)")
      ->option_text("A,B,...");
  cmd->add_option("--threads", options->threads, "Render threads (0: one per core)")->check(CLI::Range(0, 256));
  cmd->footer("Writes DIR/original.png, DIR/<FilterName>.png per filter and DIR/index.html.");
  cmd->callback([options] { runGallery(*options); });
});

}  // namespace
