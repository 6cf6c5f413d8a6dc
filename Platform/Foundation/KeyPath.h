// Key-path join: the strings class operation that joins a list of components with ".", used to
// build key paths ("texture.name") and dotted labels ("<bundle id>.texture-store.queue").
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

std::string stringWithKeyPathComponents(std::initializer_list<std::string> components);
std::string stringWithKeyPathComponents(const std::vector<std::string>& components);
