// `qvfilter convert IN OUT [--max-size N] [--quality Q] [--no-orient]`: decodes an image (as a
// bounded thumbnail with --max-size), applies its EXIF orientation unless told not to, and
// encodes it by OUT's extension. A full-size copy streams in strips, turned as the strips are
// rendered when the file has an orientation, so the whole picture is never held in memory
// (except for WebP output, whose encoder needs it).
#include <cstdio>
#include <memory>
#include <string>

#include "Command.h"
#include "CoreImage/CIContext.h"
#include "ImageFiles.h"
#include "ImageIO/ImageIO.h"
#include "ImageInfo.h"

namespace {

struct ConvertOptions {
  std::string input, output, maxSize, quality;
  bool noOrient = false;
  // Given on the command line (even as an empty string, which is then refused).
  const CLI::Option* maxSizeOption = nullptr;
  const CLI::Option* qualityOption = nullptr;
  bool hasMaxSize() const { return maxSizeOption && maxSizeOption->count() > 0; }
  bool hasQuality() const { return qualityOption && qualityOption->count() > 0; }
};

struct Written {
  std::size_t width = 0, height = 0;
};

Dictionary destinationProperties(const ConvertOptions& o, const Dictionary& sourceProperties) {
  Dictionary props;
  if (o.hasQuality())
    props[kCGImageDestinationLossyCompressionQuality] = qv::parseQualityArgument(o.quality) / 100.0;
  const Value model = sourceProperties.count(kCGImagePropertyColorModel)
                          ? sourceProperties.at(kCGImagePropertyColorModel)
                          : Value();
  if (model.string() && *model.string() == "Gray") props[kCGImagePropertyColorModel] = "Gray";
  return props;
}

// Full size, upright as stored: decoded strips go straight to the encoder.
Written streamCopy(const CGImageSourceRef& source, const CGImageDestinationRef& dest, const Dictionary& sourceProps,
                   const Dictionary& props, const std::string& input) {
  const bool hasAlpha = sourceProps.at(kCGImagePropertyHasAlpha).boolValue();
  Written w;
  bool begun = false, destinationFailed = false;
  const bool ok = CGImageSourceDecodeStripsAtIndex(source, 0, [&](const CGImageSourceStrip& s) {
    if (!begun) {
      begun = true;
      w.width = s.width;
      w.height = s.height;
      if (!CGImageDestinationBeginImage(dest, s.width, s.height, s.bitsPerComponent, hasAlpha, props)) {
        destinationFailed = true;
        return false;
      }
    }
    if (!CGImageDestinationWriteRows(dest, s.rows, s.bytesPerRow, s.rowCount)) {
      destinationFailed = true;
      return false;
    }
    return true;
  });
  if (destinationFailed) throw qv::CommandError{CGImageDestinationGetLastError(dest)};
  if (!ok) throw qv::CommandError{"cannot decode " + input + ": " + CGImageSourceGetLastError(source)};
  return w;
}

// Full size, turned upright: the file read as an image whose tiles map the upright rows to
// the file's rows (or bands of its columns), rendered in strips on the stored values (no
// colour conversion), which the encoder takes as they come.
Written orientedCopy(const std::string& input, const CGImageDestinationRef& dest, const Dictionary& sourceProps,
                     const Dictionary& props) {
  const CIImage upright =
      CIImage::imageWithContentsOfFile(input, {{kCIImageApplyOrientationProperty, Value::boolean(true)}});
  if (!upright) throw qv::CommandError{"cannot decode " + input};
  const bool hasAlpha = sourceProps.at(kCGImagePropertyHasAlpha).boolValue();
  const int bits = sourceProps.count(kCGImagePropertyDepth) && sourceProps.at(kCGImagePropertyDepth).integerValue() == 16
                       ? 16
                       : 8;
  const Written w{std::size_t(upright.extent().size.width), std::size_t(upright.extent().size.height)};
  if (!CGImageDestinationBeginImage(dest, w.width, w.height, bits, hasAlpha, props))
    throw qv::CommandError{CGImageDestinationGetLastError(dest)};
  CIContextOptions options;
  options.colorManagement = false;
  try {
    CIContext(options).renderStrips(upright, upright.extent(), bits == 16 ? CIRenderFormat::RGBA16 : CIRenderFormat::RGBA8,
                                    64, [&](const void* pixels, std::ptrdiff_t rowBytes, std::int64_t, std::int64_t rows) {
                                      if (!CGImageDestinationWriteRows(dest, pixels,
                                                                       std::size_t(rowBytes), std::size_t(rows)))
                                        throw qv::CommandError{CGImageDestinationGetLastError(dest)};
                                    });
  } catch (const CIRenderError& e) {
    throw qv::CommandError{e.what()};
  }
  return w;
}

void runConvert(const ConvertOptions& o) {
  const std::string type = qv::outputTypeForPath(o.output);
  std::size_t maxSize = 0;
  if (o.hasMaxSize()) maxSize = qv::parseSizeArgument("--max-size", o.maxSize, 1, 1'000'000);
  if (o.hasQuality()) qv::parseQualityArgument(o.quality);  // checked before any decoding

  CGImageSourceRef source = CGImageSourceCreateWithURL(o.input);
  if (!source) throw qv::CommandError{CGImageSourceGetCreateError()};
  const Dictionary sourceProps = CGImageSourceCopyPropertiesAtIndex(source, 0);
  if (sourceProps.empty()) throw qv::CommandError{"cannot read " + o.input + ": " + CGImageSourceGetLastError(source)};
  const auto width = sourceProps.at(kCGImagePropertyPixelWidth).integerValue();
  const auto height = sourceProps.at(kCGImagePropertyPixelHeight).integerValue();
  const auto orientation = sourceProps.at(kCGImagePropertyOrientation).integerValue();
  const Dictionary props = destinationProperties(o, sourceProps);

  CGImageDestinationRef dest = CGImageDestinationCreateWithURL(o.output, type);
  if (!dest) throw qv::CommandError{"cannot write " + o.output};
  Written written;
  if (maxSize == 0 && (orientation == 1 || o.noOrient)) {
    written = streamCopy(source, dest, sourceProps, props, o.input);
  } else if (maxSize == 0) {
    written = orientedCopy(o.input, dest, sourceProps, props);
  } else {
    Dictionary options{{kCGImageSourceCreateThumbnailFromImageAlways, Value::boolean(true)},
                       {kCGImageSourceShouldCache, Value::boolean(false)},
                       {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(!o.noOrient)}};
    if (maxSize > 0) options[kCGImageSourceThumbnailMaxPixelSize] = Value::integer(static_cast<std::int64_t>(maxSize));
    CGImageRef image = CGImageSourceCreateThumbnailAtIndex(source, 0, options);
    if (!image) throw qv::CommandError{"cannot decode " + o.input + ": " + CGImageSourceGetLastError(source)};
    if (!CGImageDestinationAddImage(dest, image, props)) throw qv::CommandError{CGImageDestinationGetLastError(dest)};
    written = {image->width, image->height};
  }
  if (!CGImageDestinationFinalize(dest)) throw qv::CommandError{CGImageDestinationGetLastError(dest)};
  std::printf("%s (%lldx%lld %s) -> %s (%zux%zu %s)\n", o.input.c_str(), static_cast<long long>(width),
              static_cast<long long>(height), qv::imageFormatName(CGImageSourceGetType(source)).c_str(),
              o.output.c_str(), written.width, written.height, qv::imageFormatName(type).c_str());
}

const qv::CommandRegistration registration(50, [](CLI::App& app) {
  auto o = std::make_shared<ConvertOptions>();
  CLI::App* cmd = app.add_subcommand("convert", "Convert an image file, optionally to a bounded thumbnail");
  cmd->add_option("input", o->input, "Input image (JPEG, PNG, WebP)")->required();
  cmd->add_option("output", o->output, "Output image; the extension picks the format (.png .jpg .jpeg .webp)")
      ->required();
  o->maxSizeOption = cmd->add_option("--max-size", o->maxSize, "Largest side of the result in pixels (a thumbnail)");
  o->qualityOption =
      cmd->add_option("--quality", o->quality, "JPEG/WebP quality 0-100 (default 90; WebP 100 is lossless)");
  cmd->add_flag("--no-orient", o->noOrient, "Keep the stored pixels; do not apply the EXIF orientation");
  cmd->callback([o] { runConvert(*o); });
});

}  // namespace
