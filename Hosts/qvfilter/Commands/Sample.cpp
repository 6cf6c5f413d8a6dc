// `qvfilter sample OUT [--width W] [--height H]`: writes the generated, photo-like landscape
// of SampleImage.h.
#include <cstdio>
#include <memory>
#include <string>

#include "Command.h"
#include "ImageFiles.h"
#include "ImageInfo.h"
#include "SampleImage.h"

namespace {

struct SampleOptions {
  std::string output, width = "1200", height = "800";
};

void runSample(const SampleOptions& o) {
  const std::string type = qv::outputTypeForPath(o.output);
  const std::size_t width = qv::parseSizeArgument("--width", o.width, 1, 65500);
  const std::size_t height = qv::parseSizeArgument("--height", o.height, 1, 65500);
  qv::writeSampleImage(o.output, type, width, height);
  std::printf("%s (%zux%zu %s)\n", o.output.c_str(), width, height, qv::imageFormatName(type).c_str());
}

const qv::CommandRegistration registration(55, [](CLI::App& app) {
  auto o = std::make_shared<SampleOptions>();
  CLI::App* cmd = app.add_subcommand("sample", "Write a generated, photo-like sample image");
  cmd->add_option("output", o->output, "Output image; the extension picks the format (.png .jpg .jpeg .webp)")
      ->required();
  cmd->add_option("--width", o->width, "Width in pixels (default 1200)");
  cmd->add_option("--height", o->height, "Height in pixels (default 800)");
  cmd->callback([o] { runSample(*o); });
});

}  // namespace
