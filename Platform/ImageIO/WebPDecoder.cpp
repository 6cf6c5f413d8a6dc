// WebP decoding through libwebp: WebPGetFeatures for the header, an incremental RGBA decode whose
// finished rows reach the sink in strips, and libwebp's own scaled decode for thumbnails. EXIF
// and ICCP chunks of extended files are found by walking the RIFF container.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <webp/decode.h>

#include "ImageIO/ImageIOCodecs.h"

namespace imageio_detail {

namespace {

std::uint32_t le32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[3]} << 24);
}

const char* statusText(VP8StatusCode status) {
  switch (status) {
    case VP8_STATUS_OUT_OF_MEMORY: return "out of memory";
    case VP8_STATUS_INVALID_PARAM: return "invalid parameter";
    case VP8_STATUS_BITSTREAM_ERROR: return "bitstream error";
    case VP8_STATUS_UNSUPPORTED_FEATURE: return "unsupported feature";
    case VP8_STATUS_SUSPENDED: return "suspended";
    case VP8_STATUS_USER_ABORT: return "aborted";
    case VP8_STATUS_NOT_ENOUGH_DATA: return "file is truncated";
    default: return "error";
  }
}

// Walks the chunks after the "RIFF....WEBP" header of an extended file.
void readChunks(const std::uint8_t* data, std::size_t size, HeaderInfo& info) {
  if (size < 12) return;
  std::size_t offset = 12;
  while (offset + 8 <= size) {
    const std::uint8_t* chunk = data + offset;
    const std::size_t length = le32(chunk + 4);
    if (length > size - offset - 8) return;
    const std::uint8_t* payload = chunk + 8;
    if (std::memcmp(chunk, "ICCP", 4) == 0) {
      info.hasICCProfile = true;
      info.profileName = iccProfileDescription(payload, length);
      if (info.profileName.empty()) info.profileName = "Embedded ICC profile";
    } else if (std::memcmp(chunk, "EXIF", 4) == 0) {
      info.orientation = exifOrientation(payload, length);
    }
    offset += 8 + length + (length & 1);
  }
}

}  // namespace

bool readWebPHeader(const std::uint8_t* data, std::size_t size, HeaderInfo& info, std::string& error) {
  WebPBitstreamFeatures features;
  const VP8StatusCode status = WebPGetFeatures(data, size, &features);
  if (status != VP8_STATUS_OK) {
    error = std::string("corrupt WebP: ") + statusText(status);
    return false;
  }
  info.width = static_cast<std::size_t>(features.width);
  info.height = static_cast<std::size_t>(features.height);
  info.depth = 8;
  info.outputBits = 8;
  info.colorModel = "RGB";
  info.hasAlpha = features.has_alpha != 0;
  info.isAnimated = features.has_animation != 0;
  readChunks(data, size, info);
  if (info.width == 0 || info.height == 0) {
    error = "corrupt WebP: zero image size";
    return false;
  }
  error = checkPixelLimit(info.width, info.height);
  return error.empty();
}

bool decodeWebP(const std::uint8_t* data, std::size_t size, const DecodeRequest& request, RowSink& sink,
                std::string& error) {
  HeaderInfo info;
  if (!readWebPHeader(data, size, info, error)) return false;
  if (info.isAnimated) {
    error = "animated WebP images are not supported";
    return false;
  }
  WebPDecoderConfig config;
  if (!WebPInitDecoderConfig(&config)) {
    error = "libwebp version mismatch";
    return false;
  }
  std::size_t width = info.width, height = info.height;
  if (request.targetWidth > 0 && request.targetHeight > 0 &&
      (request.targetWidth != width || request.targetHeight != height)) {
    config.options.use_scaling = 1;
    config.options.scaled_width = static_cast<int>(request.targetWidth);
    config.options.scaled_height = static_cast<int>(request.targetHeight);
    width = request.targetWidth;
    height = request.targetHeight;
  }
  if (!sink.begin(width, height, 8)) {
    error = "stopped";
    return false;
  }
  // libwebp's incremental decoder is fed the file in pieces, and the rows it has finished are
  // handed to the sink in strips as they come. Its own output buffer is sized by the header but
  // only the decoded rows of it are ever written, and the sink grows with the rows it is given,
  // so a small file claiming a huge picture fails at its data's end having made resident only
  // what it really held (a whole-size buffer handed to the decoder up front would be).
  config.output.colorspace = MODE_RGBA;
  WebPIDecoder* decoder = WebPIDecode(nullptr, 0, &config);
  if (!decoder) {
    error = "corrupt WebP: cannot start decoding";
    return false;
  }
  constexpr std::size_t kPieceBytes = std::size_t{1} << 16;
  std::size_t delivered = 0;
  VP8StatusCode status = VP8_STATUS_SUSPENDED;
  bool stopped = false;
  for (std::size_t offset = 0; offset < size && status == VP8_STATUS_SUSPENDED && !stopped;) {
    const std::size_t piece = std::min(kPieceBytes, size - offset);
    status = WebPIAppend(decoder, data + offset, piece);
    offset += piece;
    int lastRow = 0, decodedWidth = 0, decodedHeight = 0, stride = 0;
    const std::uint8_t* decoded = WebPIDecGetRGB(decoder, &lastRow, &decodedWidth, &decodedHeight, &stride);
    if (!decoded || lastRow <= 0) continue;
    const std::size_t rowBytes = width * 4;
    while (delivered < std::size_t(lastRow) && !stopped) {
      const std::size_t count = std::min(std::size_t(lastRow) - delivered, std::max<std::size_t>(1, sink.maxStripRows()));
      std::size_t bytesPerRow = 0;
      std::uint8_t* rows = sink.rows(delivered, count, bytesPerRow);
      if (!rows) {
        stopped = true;
        break;
      }
      for (std::size_t r = 0; r < count; ++r)
        std::memcpy(rows + r * bytesPerRow, decoded + (delivered + r) * std::size_t(stride), rowBytes);
      stopped = !sink.commit(delivered, count);
      delivered += count;
    }
  }
  WebPIDelete(decoder);
  WebPFreeDecBuffer(&config.output);  // a decoder started with a config writes into its output, not its own
  if (stopped) {
    error = "stopped";
    return false;
  }
  if (status == VP8_STATUS_SUSPENDED) status = VP8_STATUS_NOT_ENOUGH_DATA;  // all data given, rows missing
  if (status != VP8_STATUS_OK || delivered != height) {
    error = std::string("corrupt WebP: ") + statusText(status == VP8_STATUS_OK ? VP8_STATUS_NOT_ENOUGH_DATA : status);
    return false;
  }
  return true;
}

}  // namespace imageio_detail
