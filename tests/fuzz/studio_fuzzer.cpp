// The studio's requests from the fuzzer, read and carried out as the server does, on a fresh
// session for each input. An input is a series of requests (at most kMaxRequests), each
//
//   METHOD PATH[?QUERY]          e.g. "POST /steps/1/edit" (the path inside /api/sessions/S)
//   body lines...                up to a line "%%" or the end of the input
//
// The routes are the session's: GET "" (the state), POST /image?name=N (an upload), GET
// /preview?size=N[&before=1], POST /steps, GET and DELETE /steps/T, POST /steps/T/move,
// /steps/T/enabled, /steps/T/edit, /steps/T/image?control=..&name=N, POST /undo and /redo,
// GET /recipe?format=F&quality=Q, POST /recipe (an import), POST /exports (read, not run: an
// export renders the picture at full size in the background), GET /exports/J. The filters are
// the built-in ones; the sample picture (a large render) and the page's files are not served
// here.
//
// A refused request must be a StudioError with a 4xx or 5xx status and a reason; any other
// exception, a crash, a hang or a runaway allocation is a finding, as is an answer that cannot
// be written as JSON.
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Recipe.h"
#include "ServeStudio.h"
#include "StudioRequests.h"

namespace fs = std::filesystem;
using json = nlohmann::json;
using qv::studio::StudioError;

namespace {

constexpr std::size_t kMaxRequests = 32;
bool trace = false;

struct Request {
  std::string method, path;
  std::map<std::string, std::string> query;
  std::string body;
};

// Percent escapes and '+' decoded as the HTTP library decodes a query; a malformed escape is
// kept as it stands.
std::string decodeQueryText(std::string_view text) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::vector<Request> readRequests(std::string_view input) {
  std::vector<Request> requests;
  while (!input.empty() && requests.size() < kMaxRequests) {
    const std::size_t lineEnd = std::min(input.find('\n'), input.size());
    const std::string_view line = input.substr(0, lineEnd);
    input.remove_prefix(std::min(lineEnd + 1, input.size()));
    Request request;
    const std::size_t space = line.find(' ');
    request.method = std::string(line.substr(0, space));
    std::string_view target = space == std::string_view::npos ? std::string_view() : line.substr(space + 1);
    if (const std::size_t mark = target.find('?'); mark != std::string_view::npos) {
      std::string_view query = target.substr(mark + 1);
      target = target.substr(0, mark);
      while (!query.empty()) {
        const std::size_t amp = std::min(query.find('&'), query.size());
        const std::string_view pair = query.substr(0, amp);
        const std::size_t eq = pair.find('=');
        request.query.emplace(decodeQueryText(pair.substr(0, eq)),
                              eq == std::string_view::npos ? std::string() : decodeQueryText(pair.substr(eq + 1)));
        query.remove_prefix(std::min(amp + 1, query.size()));
      }
    }
    request.path = std::string(target);
    const std::size_t end = input.find("\n%%\n");
    if (input.starts_with("%%\n")) {
      input.remove_prefix(3);
    } else if (end == std::string_view::npos) {
      request.body = std::string(input);
      input = {};
    } else {
      request.body = std::string(input.substr(0, end));
      input.remove_prefix(end + 4);
    }
    requests.push_back(std::move(request));
  }
  return requests;
}

std::optional<std::string> param(const Request& request, const std::string& name) {
  const auto it = request.query.find(name);
  if (it == request.query.end()) return std::nullopt;
  return it->second;
}

// The path split at '/', without the leading empty part.
std::vector<std::string> pathParts(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t start = path.starts_with("/") ? 1 : 0;
  while (start < path.size()) {
    const std::size_t slash = std::min(path.find('/', start), path.size());
    parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return parts;
}

// A step or export number in the path: digits only, at most 12 of them, as the server's
// routes match them before reading the number.
bool routeNumber(const std::string& text) {
  return !text.empty() && text.size() <= 12 && text.find_first_not_of("0123456789") == std::string::npos;
}

// Carries out one request; returns the answer, or throws StudioError as the server's handlers do.
json handle(qv::studio::Session& session, const Request& r) {
  const std::vector<std::string> p = pathParts(r.path);
  const auto is = [&](const char* method, std::size_t size) { return r.method == method && p.size() == size; };
  const auto stepOf = [&] { return static_cast<int>(qv::studio::readWholeNumber(p[1], 1 << 30, "the step")); };
  if (is("GET", 0)) return session.state();
  if (is("POST", 1) && p[0] == "image") return session.openUpload(param(r, "name").value_or("image"), r.body);
  if (is("GET", 1) && p[0] == "preview") {
    // The smallest preview the studio makes, so that a chain that enlarges the picture stays
    // quick to render.
    (void)qv::studio::readQueryNumber(param(r, "size"), "size", 1024);
    const qv::studio::Preview preview = session.preview(qv::studio::kMinPreviewSide, param(r, "before") == "1");
    return {{"bytes", preview.bytes.size()}, {"width", preview.width}, {"height", preview.height}};
  }
  if (is("POST", 1) && p[0] == "steps") return session.addStep(qv::studio::readStepFilter(qv::studio::readJSONBody(r.body)));
  if (p.size() >= 2 && p[0] == "steps" && routeNumber(p[1])) {
    if (is("GET", 2)) return session.view(stepOf());
    if (is("DELETE", 2)) return session.removeStep(stepOf());
    if (is("POST", 3) && p[2] == "move") {
      const std::size_t position = qv::studio::readStepPosition(qv::studio::readJSONBody(r.body));
      return session.moveStep(stepOf(), position);
    }
    if (is("POST", 3) && p[2] == "enabled") {
      const bool enabled = qv::studio::readStepEnabled(qv::studio::readJSONBody(r.body));
      return session.setStepEnabled(stepOf(), enabled);
    }
    if (is("POST", 3) && p[2] == "edit") return session.edit(stepOf(), qv::studio::readJSONBody(r.body));
    if (is("POST", 3) && p[2] == "image") {
      const std::vector<std::size_t> control = qv::studio::readControlPath(param(r, "control").value_or(""));
      return session.setImageInput(stepOf(), control, param(r, "name").value_or("image"), r.body);
    }
  }
  if (is("POST", 1) && p[0] == "undo") return session.undo();
  if (is("POST", 1) && p[0] == "redo") return session.redo();
  if (is("GET", 1) && p[0] == "recipe") {
    const qv::studio::RecipeQuery query = qv::studio::readRecipeQuery(param(r, "format"), param(r, "quality"));
    return session.recipe(query.outputFile, query.quality);
  }
  if (is("POST", 1) && p[0] == "recipe") return session.importRecipe(r.body);
  if (is("POST", 1) && p[0] == "exports") {
    const qv::studio::ExportRequest request = qv::studio::readExportRequest(qv::studio::readJSONBody(r.body));
    return {{"format", request.format}, {"quality", request.quality}};
  }
  if (is("GET", 2) && p[0] == "exports" && routeNumber(p[1]))
    return session.exportStatus(static_cast<std::uint64_t>(qv::studio::readWholeNumber(p[1], 1ll << 40, "the export")));
  throw StudioError{404, "no such resource"};
}

// A folder of this process for the sessions' files, removed at exit (the path is never
// destroyed, so that the exit handler can still read it).
const fs::path& scratchFolder() {
  static const fs::path& folder = *[] {
    std::string path = (fs::temp_directory_path() / "qv-studio-fuzz-XXXXXX").string();
    if (!mkdtemp(path.data())) std::abort();
    auto* made = new fs::path(path);
    std::atexit([] {
      std::error_code ec;
      fs::remove_all(scratchFolder(), ec);
    });
    return made;
  }();
  return folder;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // QV_STUDIO_FUZZ_TRACE=1 prints each request's answer, for checking what a seed reaches.
  trace = std::getenv("QV_STUDIO_FUZZ_TRACE") != nullptr;
  qv::prepareFilterRegistry();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<Request> requests = readRequests(std::string_view(reinterpret_cast<const char*>(data), size));
  if (requests.empty()) return 0;
  const fs::path dir = scratchFolder() / "session";
  std::error_code ec;
  fs::create_directories(dir, ec);
  {
    // The session removes its folder (and every upload in it) when it goes.
    qv::studio::Session session("fuzz", dir);
    for (const Request& request : requests) {
      try {
        const std::string answer = handle(session, request).dump(-1, ' ', false, json::error_handler_t::replace);
        if (trace) std::fprintf(stderr, "%s %s: 200 %.200s\n", request.method.c_str(), request.path.c_str(), answer.c_str());
      } catch (const StudioError& e) {
        if (e.status < 400 || e.status > 599 || e.message.empty()) std::abort();
        if (trace) std::fprintf(stderr, "%s %s: %d %s\n", request.method.c_str(), request.path.c_str(), e.status, e.message.c_str());
      }
    }
  }
  return 0;
}
