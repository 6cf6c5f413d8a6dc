// Reading the studio's requests: the parts of an HTTP request (a JSON body, a number in the
// path, a query parameter) turned into the values the studio's sessions take, each refused
// with a StudioError (status and one-line reason) when it is malformed. Free of the HTTP
// library, so that the server (Serve.cpp), the tests and the fuzz target read requests the
// same way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qv::studio {

// A request the studio refuses: the HTTP status to answer with and a one-line reason.
struct StudioError {
  int status = 400;
  std::string message;
};

inline constexpr std::size_t kMaxJSONBody = 16u << 20;
inline constexpr int kMaxJSONNesting = 64;
inline constexpr std::size_t kMaxControlDepth = 32;
inline constexpr std::size_t kMaxSubviewIndex = 100000;

// A JSON object body: at most kMaxJSONBody bytes (413), nested at most kMaxJSONNesting deep
// (checked before parsing), valid JSON, an object.
nlohmann::json readJSONBody(const std::string& body);

// A whole number from a path or query, within [0, maximum]; `what` names it in the reason.
std::int64_t readWholeNumber(const std::string& text, std::int64_t maximum, const std::string& what);

// A query parameter's number (finite); `fallback` when the parameter is absent.
double readQueryNumber(const std::optional<std::string>& text, const std::string& name, double fallback);

// The place of a control in a step's view, as subview indices from the filter view: from a
// query ("0.1.2"; empty: the view itself) or from a JSON body ([0, 1, 2]).
std::vector<std::size_t> readControlPath(const std::string& dotted);
std::vector<std::size_t> readControlPath(const nlohmann::json& indices);

// The bodies of the step requests: {"filter": name}, {"position": n}, {"enabled": bool}.
std::string readStepFilter(const nlohmann::json& body);
std::size_t readStepPosition(const nlohmann::json& body);
bool readStepEnabled(const nlohmann::json& body);

// The query of a recipe download: the output file the recipe names ("result.png"; format png,
// jpg/jpeg or webp, png when absent) and its quality (0...1, 0.9 when absent).
struct RecipeQuery {
  std::string outputFile;
  double quality = 0.9;
};
RecipeQuery readRecipeQuery(const std::optional<std::string>& format, const std::optional<std::string>& quality);

// The body of an export: {"format": "jpeg"|"png"|"webp" (png when absent), "quality": n (0.9
// when absent)}; the format's name and the quality's range are the session's to check.
struct ExportRequest {
  std::string format;
  double quality = 0.9;
};
ExportRequest readExportRequest(const nlohmann::json& body);

}  // namespace qv::studio
