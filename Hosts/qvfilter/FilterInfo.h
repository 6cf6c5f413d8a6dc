// Describing a registered filter: its input keys, output keys and attributes, as text for
// people and as JSON for tools (`qvfilter info NAME [--json]`).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace qv {

// True when `name` names a registered filter (built-ins are registered first).
bool isRegisteredFilter(const std::string& name);

// {"name", "inputKeys", "outputKeys", "attributes"}; attribute values in the JSON form of
// jsonFromValue. Throws std::invalid_argument for an unknown name.
nlohmann::json filterInfoJSON(const std::string& name);

// The same as readable text: name and display name, categories, input and output keys, and
// every attribute of every input with its value.
std::string filterInfoText(const std::string& name);

// Prints the description of a registered filter on stdout; returns the exit code (0).
int runFilterInfo(const std::string& name, bool json);

}  // namespace qv
