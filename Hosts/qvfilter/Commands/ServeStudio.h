// The studio's model behind `qvfilter serve`: one session per browser tab, each with its
// picture, its chain of filters (each step a filter with the parameter view a host shows for
// it, edited through the view's controls and bindings), undo and redo, previews rendered from
// a bounded decode of the picture, recipes in and out, and full-size exports run in the
// background. The HTTP layer (Serve.cpp) only translates requests into these calls.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "CoreImage/CIImage.h"
#include "ImageIO/CGImageSource.h"
#include "StudioRequests.h"
#include "ViewTree.h"

namespace qv::studio {

inline constexpr std::size_t kMaxUploadBytes = std::size_t{200} << 20;
inline constexpr std::size_t kMaxSteps = 64;
inline constexpr std::size_t kMaxUndo = 200;
inline constexpr int kMinPreviewSide = 64, kMaxPreviewSide = 2048;
inline constexpr std::size_t kSampleWidth = 2400, kSampleHeight = 1600;
// JPEG quality of previews: a screen's worth of pixels seen once, so size and speed count
// more than the last fraction of fidelity (exports take the user's quality).
inline constexpr double kPreviewQuality = 0.8;
// Side in preview pixels of the squares drawn behind transparent parts of a preview (the
// page's own checkerboard has squares of 8 CSS pixels).
inline constexpr std::size_t kCheckerSquare = 8;

struct Preview {
  std::string bytes, contentType;
  std::size_t width = 0, height = 0;
  double scale = 1;  // preview pixels per picture pixel
  bool superseded = false;
  // Milliseconds spent in each stage (waiting for the render lock, decoding the picture,
  // building the graph, rendering, encoding), as an HTTP Server-Timing value.
  std::string timing;
};

struct ExportJob {
  std::uint64_t id = 0;
  std::string type, fileName, downloadName;
  std::filesystem::path path;
  std::atomic<double> progress{0};
  std::atomic<bool> done{false};
  std::string error;  // set before done when the export failed
  std::thread worker;
};

class Session {
 public:
  Session(std::string id, std::filesystem::path dir);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const std::string& id() const { return id_; }
  std::chrono::steady_clock::time_point lastUsed() const;
  void touch();

  // The picture: uploaded bytes (`name` is the user's file name), the generated sample, or a
  // file on this machine given to the serve command.
  nlohmann::json openUpload(const std::string& name, const std::string& bytes);
  nlohmann::json openSample();
  nlohmann::json openFile(const std::string& path);

  nlohmann::json state();
  nlohmann::json addStep(const std::string& filterName);
  nlohmann::json removeStep(int stepId);
  nlohmann::json moveStep(int stepId, std::size_t position);
  nlohmann::json setStepEnabled(int stepId, bool enabled);
  // The step's view tree and inputs, as `qvfilter view --json` prints them.
  nlohmann::json view(int stepId);
  // A user's edit of one control: {"control": [subview indices], "value": text} or, for
  // pop-ups, {"control": [...], "index": item}; or {"key": inputKey, "value": text} for the
  // control bound to that key. Edits carrying the "gesture" number of the previous edit (a
  // slider being dragged) share one undo step.
  nlohmann::json edit(int stepId, const nlohmann::json& request);
  // An image file for the image well at `control`.
  nlohmann::json setImageInput(int stepId, const std::vector<std::size_t>& control, const std::string& name,
                               const std::string& bytes);
  nlohmann::json undo();
  nlohmann::json redo();

  // The chain as a recipe that `qvfilter run` accepts, beside the picture it names: the
  // picture and image inputs by file name, textures by the identifiers now shown.
  nlohmann::json recipe(const std::string& outputFile, double quality);
  nlohmann::json importRecipe(const std::string& text);

  // The chain's result (or the picture itself, `before`) no larger than maxSide on either
  // side of the picture, from a decode of the picture cached at that size; a `draft` (while a
  // control is being dragged) at half that size, from the same decode reduced once more. A
  // preview asked for while a newer one is waiting is skipped, and one being rendered stops
  // when a newer one is asked for (both answered as superseded).
  Preview preview(int maxSide, bool before, bool draft = false);

  // Starts a full-size render to JPEG, PNG or WebP; returns the job's status.
  nlohmann::json startExport(const std::string& format, double quality);
  nlohmann::json exportStatus(std::uint64_t job);
  // The finished file of a job and the name to offer for download.
  std::shared_ptr<ExportJob> finishedExport(std::uint64_t job);

 private:
  struct Step {
    int id = 0;
    FilterView view;
    bool enabled = true;
    std::map<std::string, std::string> imageFiles;  // input key -> file in the session folder
  };
  struct StepState {
    int id = 0;
    bool enabled = true;
    std::vector<std::pair<std::string, Value>> inputs;
    std::map<std::string, std::string> imageFiles;
  };
  using Snapshot = std::vector<StepState>;

  nlohmann::json stateLocked() const;
  nlohmann::json openSourceLocked(const std::filesystem::path& path, const std::string& name);
  Step& stepLocked(int stepId);
  std::shared_ptr<Step> newStepLocked(const std::string& filterName);
  Snapshot snapshotLocked() const;
  void restoreLocked(const Snapshot& snapshot);
  void pushUndoLocked();
  nlohmann::json recipeLocked(const std::string& outputFile, double quality, bool absolutePaths) const;
  nlohmann::json stepResponseLocked(int stepId);
  std::filesystem::path uniqueFileLocked(const std::string& name);
  // An uploaded image written into the session's folder under a safe, unused name of its own,
  // with the extension of its checked type when it has none.
  std::filesystem::path saveUploadLocked(const std::string& name, const std::string& type, const std::string& bytes);

  const std::string id_;
  const std::filesystem::path dir_;
  std::chrono::steady_clock::time_point lastUsed_;

  // The picture.
  std::string sourceName_;  // as the recipe names it
  std::filesystem::path sourcePath_;
  CGImageSourceRef source_;
  std::size_t width_ = 0, height_ = 0;
  int baseSide_ = 0;
  CGImageRef baseBitmap_;  // the cached bounded decode
  CIImage base_, draftBase_;  // it, and it at half its size (made when first asked for)

  // The chain; every step ever made stays in pool_ for undo.
  std::vector<std::shared_ptr<Step>> chain_;
  std::map<int, std::shared_ptr<Step>> pool_;
  int nextStepId_ = 1;
  std::vector<Snapshot> undo_, redo_;
  std::int64_t lastGesture_ = -1;
  int lastGestureStep_ = -1;
  std::uint64_t revision_ = 0;
  int fileCounter_ = 0;

  // Previews: one render at a time; a waiting request gives way to a newer one.
  std::mutex renderMutex_;
  std::atomic<std::uint64_t> previewTicket_{0};

  std::map<std::uint64_t, std::shared_ptr<ExportJob>> exports_;
  std::uint64_t nextExport_ = 1;
};

// The sessions of one server: made on request, looked up by their random id, dropped when
// idle too long or when too many are open.
class SessionTable {
 public:
  explicit SessionTable(std::filesystem::path root) : root_(std::move(root)) {}
  std::shared_ptr<Session> create();
  std::shared_ptr<Session> find(const std::string& id);
  bool remove(const std::string& id);
  void clear();
  static constexpr std::size_t kMaxSessions = 32;
  static constexpr std::chrono::hours kIdleLimit{6};

 private:
  std::filesystem::path root_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Session>> sessions_;
};

// The registered filters for the page's list: [{name, displayName, categories}].
nlohmann::json filterListJSON();

}  // namespace qv::studio
