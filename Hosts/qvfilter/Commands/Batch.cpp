// `qvfilter batch RECIPE INPUT... -o OUTDIR`: a recipe's chain applied to many files, several
// at once, with progress, a summary and an optional JSON report. A bad file is reported and
// skipped; the exit status says whether any file failed. Ctrl-C (or SIGTERM) stops starting
// files, lets the files in flight finish and reports the rest as not run; outputs are written
// under a temporary name and renamed when complete, so no output is ever half-written.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Batch.h"
#include "Command.h"
#include "CoreImage/CIContext.h"
#include "ImageFiles.h"
#include "PlugIns.h"

namespace {

using json = nlohmann::json;

struct BatchOptions {
  std::string recipe;
  std::vector<std::string> inputs;
  std::string outputDirectory;
  std::string format;
  std::string quality;
  const CLI::Option* qualityOption = nullptr;
  int jobs = 0;
  int threads = 1;
  bool fastShrink = false;
  std::string maxMemory;
  bool skipExisting = false;
  std::string report;
  bool quiet = false;
};

std::atomic<bool> gStop{false};

extern "C" void onStopSignal(int) { gStop.store(true); }

// Installs the stop handlers for the life of a batch, and puts the old ones back.
class StopSignals {
 public:
  StopSignals() {
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &oldInt_);
    sigaction(SIGTERM, &sa, &oldTerm_);
  }
  ~StopSignals() {
    sigaction(SIGINT, &oldInt_, nullptr);
    sigaction(SIGTERM, &oldTerm_, nullptr);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

 private:
  struct sigaction oldInt_ {}, oldTerm_ {};
};

std::string duration(double seconds) {
  const long s = std::lround(std::max(0.0, seconds));
  char buffer[32];
  if (s >= 3600) {
    std::snprintf(buffer, sizeof buffer, "%ld:%02ld:%02ld", s / 3600, (s / 60) % 60, s % 60);
  } else {
    std::snprintf(buffer, sizeof buffer, "%ld:%02ld", s / 60, s % 60);
  }
  return buffer;
}

// Progress on stderr: a bar redrawn in place on a terminal, one line per file otherwise.
class Progress {
 public:
  Progress(std::size_t total, bool terminal, bool quiet)
      : total_(total), terminal_(terminal), quiet_(quiet), start_(std::chrono::steady_clock::now()) {}

  void fileDone(const json& result) {
    std::lock_guard lock(mutex_);
    ++done_;
    const std::string status = result.value("status", "");
    if (status == "failed") ++failed_;
    if (quiet_) return;
    if (terminal_) {
      if (status == "failed") {
        std::fprintf(stderr, "\r\033[Kfailed: %s\n", result.value("error", "").c_str());
      }
      drawBar();
    } else if (status == "failed") {
      std::fprintf(stderr, "[%zu/%zu] failed %s: %s\n", done_, total_, result.value("input", "").c_str(),
                   result.value("error", "").c_str());
    } else {
      std::fprintf(stderr, "[%zu/%zu] %s %s -> %s (%.2f s)\n", done_, total_, status.c_str(),
                   result.value("input", "").c_str(), result.value("output", "").c_str(),
                   result.value("seconds", 0.0));
    }
  }

  void stopping(std::size_t inFlight) {
    std::lock_guard lock(mutex_);
    if (terminal_) std::fprintf(stderr, "\r\033[K");
    std::fprintf(stderr, "qvfilter: stopping after the %zu file(s) in flight\n", inFlight);
    if (terminal_ && !quiet_) drawBar();
  }

  void finish() {
    std::lock_guard lock(mutex_);
    if (terminal_ && !quiet_) std::fprintf(stderr, "\n");
  }

 private:
  void drawBar() {
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double rate = elapsed > 0 ? double(done_) / elapsed : 0.0;
    const double left = rate > 0 ? double(total_ - done_) / rate : 0.0;
    constexpr int kWidth = 30;
    const int filled = total_ ? int(double(kWidth) * double(done_) / double(total_)) : kWidth;
    std::string bar(std::size_t(filled), '#');
    bar.append(std::size_t(kWidth - filled), '-');
    std::fprintf(stderr, "\r\033[K[%s] %zu/%zu files  %.1f files/s  %s left%s", bar.c_str(), done_, total_, rate,
                 rate > 0 ? duration(left).c_str() : "?", failed_ ? ("  " + std::to_string(failed_) + " failed").c_str() : "");
    std::fflush(stderr);
  }

  std::mutex mutex_;
  std::size_t total_, done_ = 0, failed_ = 0;
  bool terminal_, quiet_;
  std::chrono::steady_clock::time_point start_;
};

int runBatch(const BatchOptions& options) {
  qvLoadPlugIns();
  qv::BatchFileOptions fileOptions;
  fileOptions.threads = options.threads;
  fileOptions.fastShrink = options.fastShrink;
  fileOptions.skipExisting = options.skipExisting;
  const std::int64_t maxMemory =
      options.maxMemory.empty() ? CIContext::defaultMaxMemory() : qv::parseMemoryArgument(options.maxMemory);
  if (options.qualityOption && options.qualityOption->count() > 0)
    fileOptions.quality = qv::parseQualityArgument(options.quality) / 100.0;

  std::vector<qv::BatchEntry> entries;
  std::unique_ptr<qv::BatchRecipe> recipe;
  try {
    recipe = std::make_unique<qv::BatchRecipe>(qv::BatchRecipe::fromFile(options.recipe));
    entries = qv::planBatch(options.inputs, options.outputDirectory, options.format);
  } catch (const qv::RecipeError& e) {
    throw qv::CommandError{e.what()};
  }
  std::error_code ec;
  std::filesystem::create_directories(options.outputDirectory, ec);
  if (ec) throw qv::CommandError{"cannot create " + options.outputDirectory + ": " + ec.message()};
  // Checked before any file is rendered, so that a report that cannot be written does not
  // surface only at the end of a long batch.
  if (!options.report.empty()) {
    try {
      qv::writeJSONFile(options.report, qv::batchReport(options.recipe, options.outputDirectory, {}, 0, false));
    } catch (const qv::RecipeError& e) {
      throw qv::CommandError{e.what()};
    }
  }

  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  const std::size_t jobs =
      std::clamp<std::size_t>(options.jobs > 0 ? std::size_t(options.jobs) : cores, 1, std::max<std::size_t>(entries.size(), 1));
  // The files rendered at once share the budget.
  fileOptions.maxMemory = std::max<std::int64_t>(maxMemory / std::int64_t(jobs), 1);
  Progress progress(entries.size(), isatty(STDERR_FILENO) != 0, options.quiet);

  std::vector<json> results(entries.size());
  std::atomic<std::size_t> next{0}, inFlight{0};
  std::atomic<bool> announced{false};
  const auto start = std::chrono::steady_clock::now();
  gStop.store(false);
  {
    StopSignals signals;
    auto worker = [&] {
      for (;;) {
        if (gStop.load()) return;
        const std::size_t i = next.fetch_add(1);
        if (i >= entries.size()) return;
        ++inFlight;
        results[i] = recipe->run(entries[i], fileOptions);
        --inFlight;
        progress.fileDone(results[i]);
      }
    };
    std::vector<std::thread> threads;
    for (std::size_t j = 1; j < jobs; ++j) threads.emplace_back(worker);
    // The main thread works too, and watches for the stop request between files.
    std::thread watcher([&] {
      while (next.load() < entries.size() || inFlight.load() > 0) {
        if (gStop.load() && !announced.exchange(true)) progress.stopping(inFlight.load());
        if (gStop.load() && inFlight.load() == 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
    });
    worker();
    for (auto& t : threads) t.join();
    watcher.join();
  }
  progress.finish();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const bool interrupted = gStop.load();
  for (std::size_t i = 0; i < entries.size(); ++i)
    if (results[i].is_null()) results[i] = qv::batchNotRunResult(entries[i]);
  const json report = qv::batchReport(options.recipe, options.outputDirectory, results, seconds, interrupted);
  const json& s = report["summary"];
  std::printf("%zu file(s): %zu written, %zu skipped, %zu failed", s["files"].get<std::size_t>(),
              s["written"].get<std::size_t>(), s["skipped"].get<std::size_t>(), s["failed"].get<std::size_t>());
  if (s["notRun"].get<std::size_t>() > 0) std::printf(", %zu not run", s["notRun"].get<std::size_t>());
  std::printf(" in %s (%.1f files/s)%s\n", duration(seconds).c_str(),
              seconds > 0 ? double(s["written"].get<std::size_t>()) / seconds : 0.0, interrupted ? ", interrupted" : "");
  for (const auto& r : results)
    if (r.value("status", "") == "failed")
      std::printf("failed: %s: %s\n", r.value("input", "").c_str(), r.value("error", "").c_str());
  std::fflush(stdout);
  if (!options.report.empty()) {
    try {
      qv::writeJSONFile(options.report, report);
    } catch (const qv::RecipeError& e) {
      throw qv::CommandError{e.what()};
    }
  }
  if (interrupted) return 130;
  return s["failed"].get<std::size_t>() > 0 ? 1 : 0;
}

const qv::CommandRegistration registration(45, [](CLI::App& app) {
  auto options = std::make_shared<BatchOptions>();
  CLI::App* cmd = app.add_subcommand("batch", "Apply a recipe's chain to many image files");
  cmd->add_option("recipe", options->recipe, "Recipe file (its chain's first step takes each input file)")
      ->required();
  cmd->add_option("inputs", options->inputs, "Input files, directories (their .jpg .png .webp files) or globs")
      ->required();
  cmd->add_option("-o,--output-dir", options->outputDirectory, "Directory of the outputs (created when missing)")
      ->required();
  cmd->add_option("--format", options->format, "Output format: jpg, png or webp (default: each input's own)")
      ->check(CLI::IsMember({"jpg", "png", "webp"}, CLI::ignore_case));
  options->qualityOption =
      cmd->add_option("--quality", options->quality, "JPEG/WebP quality 0-100 (default: the recipe's, else 90)");
  cmd->add_option("-j,--jobs", options->jobs, "Files rendered at once (default: one per core)")
      ->check(CLI::Range(1, 256));
  cmd->add_option("--threads", options->threads, "Render threads per file (default 1; 0: one per core)")
      ->check(CLI::Range(0, 256));
  qv::addFastShrinkFlag(cmd, options->fastShrink);
  qv::addMaxMemoryOption(cmd, options->maxMemory);
  cmd->add_flag("--skip-existing", options->skipExisting, "Leave outputs that already exist alone (resume a batch)");
  cmd->add_option("--report", options->report, "Write a JSON report of every file's result here");
  cmd->add_flag("-q,--quiet", options->quiet, "No progress, only the summary");
  cmd->footer(
      "Outputs are named after their inputs: OUTDIR/NAME.FORMAT. A file that cannot be read or rendered is "
      "reported and skipped, and the batch goes on. Exit status: 0 when every file was written or skipped, 1 "
      "when any failed (or the batch could not start), 130 when interrupted: Ctrl-C lets the files in flight "
      "finish, writes the report and stops; no output is ever left half-written.");
  cmd->callback([options] {
    const int rc = runBatch(*options);
    if (rc != 0) throw qv::CommandError{"", rc};
  });
});

}  // namespace
