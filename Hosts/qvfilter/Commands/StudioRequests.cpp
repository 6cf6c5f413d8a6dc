#include "StudioRequests.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace qv::studio {

using json = nlohmann::json;

namespace {

// Nesting deeper than the limit is refused before parsing.
void checkNesting(const std::string& text) {
  int depth = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) escaped = false;
      else if (c == '\\') escaped = true;
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxJSONNesting) throw StudioError{400, "the JSON body is nested too deeply"};
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
}

}  // namespace

json readJSONBody(const std::string& body) {
  if (body.size() > kMaxJSONBody) throw StudioError{413, "the JSON body is too large"};
  checkNesting(body);
  json parsed = json::parse(body, nullptr, false);
  if (parsed.is_discarded()) throw StudioError{400, "the body is not valid JSON"};
  if (!parsed.is_object()) throw StudioError{400, "the body must be a JSON object"};
  return parsed;
}

std::int64_t readWholeNumber(const std::string& text, std::int64_t maximum, const std::string& what) {
  if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != std::string::npos)
    throw StudioError{400, what + " must be a whole number"};
  const std::int64_t v = std::stoll(text);
  if (v > maximum) throw StudioError{400, what + " is too large"};
  return v;
}

double readQueryNumber(const std::optional<std::string>& text, const std::string& name, double fallback) {
  if (!text) return fallback;
  char* end = nullptr;
  const double v = std::strtod(text->c_str(), &end);
  if (text->empty() || *end || !std::isfinite(v)) throw StudioError{400, name + " must be a number"};
  return v;
}

std::vector<std::size_t> readControlPath(const std::string& dotted) {
  std::vector<std::size_t> control;
  std::size_t start = 0;
  while (start <= dotted.size() && !dotted.empty()) {
    const std::size_t dot = std::min(dotted.find('.', start), dotted.size());
    control.push_back(static_cast<std::size_t>(
        readWholeNumber(dotted.substr(start, dot - start), static_cast<std::int64_t>(kMaxSubviewIndex), "control")));
    if (control.size() > kMaxControlDepth) throw StudioError{400, "control is too deep"};
    start = dot + 1;
  }
  return control;
}

std::vector<std::size_t> readControlPath(const json& indices) {
  if (!indices.is_array() || indices.size() > kMaxControlDepth)
    throw StudioError{400, "\"control\" must be an array of subview indices"};
  std::vector<std::size_t> path;
  for (const json& e : indices) {
    if (!e.is_number_integer() || e.get<std::int64_t>() < 0 ||
        e.get<std::int64_t>() > static_cast<std::int64_t>(kMaxSubviewIndex))
      throw StudioError{400, "\"control\" must be an array of subview indices"};
    path.push_back(static_cast<std::size_t>(e.get<std::int64_t>()));
  }
  return path;
}

std::string readStepFilter(const json& body) {
  if (!body.contains("filter") || !body["filter"].is_string())
    throw StudioError{400, "a step needs a \"filter\" name string"};
  return body["filter"].get<std::string>();
}

std::size_t readStepPosition(const json& body) {
  if (!body.contains("position") || !body["position"].is_number_unsigned())
    throw StudioError{400, "\"position\" must be a whole number"};
  return body["position"].get<std::size_t>();
}

bool readStepEnabled(const json& body) {
  if (!body.contains("enabled") || !body["enabled"].is_boolean())
    throw StudioError{400, "\"enabled\" must be true or false"};
  return body["enabled"].get<bool>();
}

RecipeQuery readRecipeQuery(const std::optional<std::string>& format, const std::optional<std::string>& quality) {
  std::string name = format.value_or("png");
  if (name != "png" && name != "jpg" && name != "jpeg" && name != "webp")
    throw StudioError{400, "unknown format \"" + name + "\" (jpeg, png or webp)"};
  if (name == "jpeg") name = "jpg";
  RecipeQuery query;
  query.outputFile = "result." + name;
  query.quality = readQueryNumber(quality, "quality", 0.9);
  if (query.quality < 0 || query.quality > 1) throw StudioError{400, "quality must lie in 0...1"};
  return query;
}

ExportRequest readExportRequest(const json& body) {
  ExportRequest request;
  request.format = body.value("format", json("png")).is_string() ? body.value("format", "png") : "";
  const json quality = body.value("quality", json(0.9));
  if (!quality.is_number()) throw StudioError{400, "\"quality\" must be a number"};
  request.quality = quality.get<double>();
  return request;
}

}  // namespace qv::studio
