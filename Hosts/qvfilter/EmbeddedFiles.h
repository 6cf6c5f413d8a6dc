// Files compiled into the host (cmake/EmbedFiles.cmake): the studio's page.
#pragma once

#include <cstddef>

namespace qv {

struct EmbeddedFile {
  const char* path;  // "/index.html"
  const unsigned char* bytes;
  std::size_t size;
};

namespace studio {
extern const EmbeddedFile kEmbeddedFiles[];
extern const std::size_t kEmbeddedFileCount;
}  // namespace studio

}  // namespace qv
