// The generated, photo-like sample picture of `qvfilter sample`, for the commands that need
// one (the studio opens it when the user has no photo at hand).
#pragma once

#include <cstddef>
#include <string>

namespace qv {

// Writes the sample of width x height to `path` as `type` ("public.png"...). The picture
// depends only on its size. Throws CommandError with a one-line reason on failure.
void writeSampleImage(const std::string& path, const std::string& type, std::size_t width, std::size_t height);

}  // namespace qv
