// qvfilter kernel check FILE: compiles a kernel file and prints the kernel routines it defines,
// in order, with their parameter types, or its diagnostics as "FILE:LINE:COLUMN: error: ...".
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <filesystem>

#include "Command.h"
#include "CoreImage/CIKernel.h"

namespace {

constexpr std::uintmax_t kMaxKernelFileBytes = 1 << 20;

std::string readKernelFile(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  auto status = fs::status(path, ec);
  if (ec || !fs::exists(status)) throw qv::CommandError{"cannot read " + path + ": no such file"};
  if (fs::is_directory(status)) throw qv::CommandError{"cannot read " + path + ": it is a directory"};
  // A FIFO or device would block the open or never end; kernel texts are regular files.
  if (!fs::is_regular_file(status)) throw qv::CommandError{"cannot read " + path + ": not a regular file"};
  auto size = fs::file_size(path, ec);
  if (!ec && size > kMaxKernelFileBytes)
    throw qv::CommandError{"cannot read " + path + ": the file is larger than 1 MB"};
  std::ifstream in(path, std::ios::binary);
  if (!in) throw qv::CommandError{"cannot read " + path + ": permission denied or unreadable"};
  std::string text;
  char buf[65536];
  while (in.read(buf, sizeof buf) || in.gcount() > 0) {
    text.append(buf, std::size_t(in.gcount()));
    if (text.size() > kMaxKernelFileBytes) throw qv::CommandError{"cannot read " + path + ": the file is larger than 1 MB"};
  }
  if (in.bad()) throw qv::CommandError{"cannot read " + path + ": read error"};
  return text;
}

void check(const std::string& path) {
  const std::string text = readKernelFile(path);
  std::vector<KernelDiagnostic> diagnostics;
  auto kernels = CIKernel::kernelsWithString(text, &diagnostics);
  if (!diagnostics.empty()) {
    for (auto& d : diagnostics) std::fprintf(stderr, "%s:%s\n", path.c_str(), d.description().c_str());
    throw qv::CommandError{path + ": " + std::to_string(diagnostics.size()) +
                           (diagnostics.size() == 1 ? " error" : " errors")};
  }
  if (kernels.empty()) throw qv::CommandError{path + ": defines no kernel routine"};
  for (auto& k : kernels) std::printf("%s\n", k->signature().c_str());
}

const qv::CommandRegistration registration(60, [](CLI::App& app) {
  auto* kernel = app.add_subcommand("kernel", "Work with kernel files (*.cikernel)");
  kernel->require_subcommand(1);
  auto* checkCmd = kernel->add_subcommand("check", "Compile a kernel file and list its kernel routines, or its errors");
  auto file = std::make_shared<std::string>();
  checkCmd->add_option("FILE", *file, "the kernel file")->required();
  checkCmd->callback([file] { check(*file); });
});

}  // namespace
