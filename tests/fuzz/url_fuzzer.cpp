// URL parsing and percent escaping on arbitrary strings. Checks, beyond not crashing:
// escaping gives only legal URL characters and decodes back to the input, and an escaped key
// always makes a valid identifier URL.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Foundation/NSURL.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);

  if (auto url = NSURL::URLWithString(input)) {
    (void)url->scheme();
    (void)url->host();
    (void)url->path();
    (void)url->lastPathComponent();
    (void)url->pathExtension();
    (void)url->isFileURL();
    if (url->absoluteString() != input) std::abort();
    auto again = NSURL::URLWithString(url->absoluteString());
    if (!again || !again->isEqual(*url)) std::abort();
  }

  const std::optional<std::string> escaped = stringByAddingPercentEscapesUsingEncoding(input);
  if (escaped.has_value() != QVIsValidUTF8(input)) std::abort();
  if (escaped) {
    const std::optional<std::string> decoded = stringByRemovingPercentEncoding(*escaped);
    if (!decoded || *decoded != input) std::abort();
    if (!NSURL::URLWithString("x-qvfilter-texture://com.example.filters.imageunits/" + *escaped)) std::abort();
  }

  (void)stringByRemovingPercentEncoding(input);
  if (!input.empty() && input.find('\0') == std::string::npos) (void)NSURL::fileURLWithPath(input);
  return 0;
}
