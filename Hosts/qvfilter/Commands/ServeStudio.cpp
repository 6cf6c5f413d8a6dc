#include "ServeStudio.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <random>
#include <set>

#include "AppKit/NSControl.h"
#include "Command.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
#include "Foundation/NSException.h"
#include "Foundation/NSURL.h"
#include "ImageIO/ImageIO.h"
#include "Recipe.h"
#include "SampleImage.h"
#include "TextureCatalogue.h"
#include "ValueParsing.h"

namespace qv::studio {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

bool isTextureIdentifierKey(const std::string& key) { return key.ends_with("TextureIdentifier"); }

bool hasKey(const CIFilter& filter, const std::string& key) {
  const auto keys = filter.inputKeys();
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

// A file name the session may use: the user's name without any folder, reduced to
// [A-Za-z0-9._-], never starting with a dot.
std::string safeFileName(const std::string& name) {
  std::string base = fs::path(name).filename().string();
  std::string out;
  for (unsigned char c : base) out += (std::isalnum(c) || c == '.' || c == '-' || c == '_') ? char(c) : '_';
  while (!out.empty() && out.front() == '.') out.erase(out.begin());
  if (out.size() > 80) out = out.substr(out.size() - 80);
  return out.empty() ? "image" : out;
}

std::string extensionForType(const std::string& type) {
  if (type == kUTTypeJPEG) return ".jpg";
  if (type == kUTTypeWebP) return ".webp";
  return ".png";
}

void writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) throw StudioError{500, "cannot store the image in the session's folder"};
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Checks that bytes are an image the decoders take, within their limits; returns its type.
std::string checkImageBytes(const std::string& bytes) {
  if (bytes.empty()) throw StudioError{400, "the upload is empty"};
  if (bytes.size() > kMaxUploadBytes)
    throw StudioError{413, "the file is larger than " + std::to_string(kMaxUploadBytes >> 20) + " MB"};
  auto source = CGImageSourceCreateWithData(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
  if (!source) throw StudioError{415, "not an image this studio can open (JPEG, PNG or WebP)"};
  const Dictionary props = CGImageSourceCopyPropertiesAtIndex(source, 0);
  if (props.empty() || CGImageSourceGetCount(source) < 1) {
    const std::string why = CGImageSourceGetLastError(source);
    throw StudioError{415, "the image cannot be read" + (why.empty() ? std::string() : ": " + why)};
  }
  return CGImageSourceGetType(source);
}

std::string controlKey(const NSView& view) {
  for (const std::string& binding : view.boundBindings()) {
    const std::string& path = view.infoForBinding(binding)->observedKeyPath;
    if (path.starts_with("selection.")) return path.substr(10);
  }
  return {};
}

// Whether an image well of the view tree is bound to the input `key`.
bool hasImageWellFor(const NSView& view, const std::string& key) {
  if (dynamic_cast<const NSImageView*>(&view) && controlKey(view) == key) return true;
  for (const NSViewRef& sub : view.subviews())
    if (hasImageWellFor(*sub, key)) return true;
  return false;
}

std::string randomHex(std::size_t bytes) {
  static std::mutex mutex;
  static std::random_device device;
  std::lock_guard lock(mutex);
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < bytes; ++i) {
    const unsigned v = device() & 0xff;
    out += digits[v >> 4];
    out += digits[v & 15];
  }
  return out;
}

// Views, bindings and the filters they edit belong to one thread at a time, as a host's user
// interface runs on one thread: every session's model work takes this lock; rendering, the
// slow part, runs outside it.
std::mutex& viewMutex() {
  static std::mutex mutex;
  return mutex;
}

// Inputs measured in picture pixels: lengths (a border's width, a blur's radius), positions,
// offsets and rectangles, by their attribute type.
bool isDistanceType(const std::string& type) {
  return type == kCIAttributeTypeDistance || type == kCIAttributeTypePosition || type == kCIAttributeTypeOffset ||
         type == kCIAttributeTypeRectangle || type == "CIAttributeTypePosition3";
}

// The filter to render a preview with when the picture is shown `scale` times its size: the
// filter itself when nothing needs scaling, otherwise a copy whose distance-typed inputs are
// multiplied by the scale and whose other images (a watermark, a mask: full-size files placed
// in picture pixels) are scaled with the picture, so that the preview looks like the full-size
// result scaled down. The session's filter keeps its values (they are what the view shows and
// the recipe says).
// An input's value in a picture shown `scale` times its size, or nil when it does not change.
Value valueAtScale(const Value& value, const Value& attributes, double scale) {
  if (const CIImage image = CIImage::fromValue(value); !image.isNil()) {
    if (CGRectIsInfinite(image.extent())) return {};
    return Value(image.imageByApplyingTransform(CGAffineTransformMakeScale(scale, scale)));
  }
  const Value type = attributes.dictionary() ? attributes[kCIAttributeType] : Value();
  if (!type.isString() || !isDistanceType(*type.string())) return {};
  if (value.isNumber() && !value.isBoolean()) return Value(value.doubleValue() * scale);
  if (const auto vector = CIVector::fromValue(value)) {
    std::vector<double> values = vector->values();
    for (double& v : values) v *= scale;
    return Value(CIVector::vectorWithValues(values.data(), values.size()));
  }
  return {};
}

CIFilterRef filterAtScale(const CIFilterRef& filter, double scale) {
  if (scale == 1) return filter;
  const Dictionary attributes = filter->attributes();
  CIFilterRef scaled;
  for (const std::string& key : filter->inputKeys()) {
    if (key == kCIInputImageKey) continue;
    const auto entry = attributes.find(key);
    const Value smaller = valueAtScale(filter->valueForKey(key), entry == attributes.end() ? Value() : entry->second, scale);
    if (smaller.isNil()) continue;
    if (!scaled) scaled = filter->copy();
    try {
      scaled->setValue(smaller, key);
    } catch (const std::exception&) {
      // A value the filter refuses at this scale: the preview keeps the full-size one.
    }
  }
  return scaled ? scaled : filter;
}

// Thrown from a preview's render when a newer preview has been asked for.
struct PreviewSuperseded {};

}  // namespace

json filterListJSON() {
  prepareFilterRegistry();
  json out = json::array();
  for (const std::string& name : CIFilter::filterNamesInCategory("")) {
    const CIFilterRegistration* r = CIFilter::registrationForName(name);
    out.push_back({{"name", name},
                   {"displayName", r && !r->displayName.empty() ? r->displayName : name},
                   {"categories", r ? json(r->categories) : json::array()}});
  }
  return out;
}

// ---- session ----

Session::Session(std::string id, fs::path dir) : id_(std::move(id)), dir_(std::move(dir)) {
  lastUsed_ = std::chrono::steady_clock::now();
}

Session::~Session() {
  for (auto& [id, job] : exports_)
    if (job->worker.joinable()) job->worker.join();
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

std::chrono::steady_clock::time_point Session::lastUsed() const {
  std::lock_guard lock(viewMutex());
  return lastUsed_;
}

void Session::touch() {
  std::lock_guard lock(viewMutex());
  lastUsed_ = std::chrono::steady_clock::now();
}

fs::path Session::uniqueFileLocked(const std::string& name) {
  const std::string safe = safeFileName(name);
  fs::path path = dir_ / safe;
  std::error_code ec;
  while (fs::exists(path, ec)) path = dir_ / (std::to_string(++fileCounter_) + "-" + safe);
  return path;
}

fs::path Session::saveUploadLocked(const std::string& name, const std::string& type, const std::string& bytes) {
  std::string fileName = safeFileName(name);
  if (fs::path(fileName).extension().empty()) fileName += extensionForType(type);
  const fs::path path = uniqueFileLocked(fileName);
  writeFile(path, bytes);
  return path;
}

json Session::openSourceLocked(const fs::path& path, const std::string& name) {
  auto source = CGImageSourceCreateWithURL(path.string());
  if (!source) throw StudioError{415, "not an image this studio can open (JPEG, PNG or WebP)"};
  const Dictionary props = CGImageSourceCopyPropertiesAtIndex(source, 0);
  const auto w = props.find(kCGImagePropertyPixelWidth), h = props.find(kCGImagePropertyPixelHeight);
  if (w == props.end() || h == props.end()) {
    const std::string why = CGImageSourceGetLastError(source);
    throw StudioError{415, "the image cannot be read" + (why.empty() ? std::string() : ": " + why)};
  }
  source_ = source;
  sourcePath_ = path;
  sourceName_ = name;
  width_ = static_cast<std::size_t>(w->second.integerValue());
  height_ = static_cast<std::size_t>(h->second.integerValue());
  base_ = {};
  draftBase_ = {};
  baseBitmap_ = nullptr;
  baseSide_ = 0;
  ++revision_;
  return stateLocked();
}

json Session::openUpload(const std::string& name, const std::string& bytes) {
  const std::string type = checkImageBytes(bytes);
  std::lock_guard lock(viewMutex());
  const fs::path path = saveUploadLocked(name, type, bytes);
  return openSourceLocked(path, path.filename().string());
}

json Session::openSample() {
  std::lock_guard lock(viewMutex());
  const fs::path path = dir_ / "sample.jpg";
  std::error_code ec;
  if (!fs::exists(path, ec)) {
    try {
      writeSampleImage(path.string(), kUTTypeJPEG, kSampleWidth, kSampleHeight);
    } catch (const CommandError& e) {
      throw StudioError{500, e.message};
    }
  }
  return openSourceLocked(path, "sample.jpg");
}

json Session::openFile(const std::string& path) {
  std::lock_guard lock(viewMutex());
  return openSourceLocked(fs::absolute(path), fs::path(path).filename().string());
}

json Session::stateLocked() const {
  json steps = json::array();
  for (const auto& step : chain_) {
    const CIFilterRegistration* r = CIFilter::registrationForName(step->view.filter->name());
    steps.push_back({{"id", step->id},
                     {"filter", step->view.filter->name()},
                     {"displayName", r && !r->displayName.empty() ? r->displayName : step->view.filter->name()},
                     {"enabled", step->enabled},
                     {"provided", step->view.provided}});
  }
  json image = nullptr;
  if (source_) image = {{"name", sourceName_}, {"width", width_}, {"height", height_}};
  return {{"session", id_},   {"image", image},       {"steps", steps},
          {"canUndo", !undo_.empty()}, {"canRedo", !redo_.empty()}, {"revision", revision_}};
}

json Session::state() {
  std::lock_guard lock(viewMutex());
  return stateLocked();
}

Session::Step& Session::stepLocked(int stepId) {
  for (auto& step : chain_)
    if (step->id == stepId) return *step;
  throw StudioError{404, "no step " + std::to_string(stepId) + " in the chain"};
}

std::shared_ptr<Session::Step> Session::newStepLocked(const std::string& filterName) {
  auto step = std::make_shared<Step>();
  try {
    step->view = makeFilterView(filterName);
  } catch (const std::invalid_argument& e) {
    throw StudioError{404, e.what()};
  } catch (const NSException& e) {
    throw StudioError{500, "cannot build the view of " + filterName + ": " + e.reason()};
  }
  step->id = nextStepId_++;
  pool_[step->id] = step;
  return step;
}

Session::Snapshot Session::snapshotLocked() const {
  Snapshot snapshot;
  for (const auto& step : chain_) {
    StepState state{step->id, step->enabled, {}, step->imageFiles};
    for (const std::string& key : step->view.filter->inputKeys())
      if (key != kCIInputImageKey) state.inputs.emplace_back(key, step->view.filter->valueForKey(key));
    snapshot.push_back(std::move(state));
  }
  return snapshot;
}

void Session::restoreLocked(const Snapshot& snapshot) {
  std::vector<std::shared_ptr<Step>> chain;
  for (const StepState& state : snapshot) {
    auto step = pool_.at(state.id);
    step->enabled = state.enabled;
    step->imageFiles = state.imageFiles;
    const CIFilterRef& filter = step->view.filter;
    // Names first: setting a texture name resolves its identifier again, which the stored
    // identifier then puts back as it was.
    for (const auto& [key, value] : state.inputs)
      if (!isTextureIdentifierKey(key)) filter->setValue(value, key);
    for (const auto& [key, value] : state.inputs)
      if (isTextureIdentifierKey(key)) filter->setValue(value, key);
    chain.push_back(step);
  }
  chain_ = std::move(chain);
  ++revision_;
}

void Session::pushUndoLocked() {
  undo_.push_back(snapshotLocked());
  if (undo_.size() > kMaxUndo) undo_.erase(undo_.begin());
  redo_.clear();
  lastGesture_ = -1;
}

json Session::stepResponseLocked(int stepId) {
  json out = stateLocked();
  out["step"] = stepId;
  out["view"] = filterViewJSON(stepLocked(stepId).view);
  return out;
}

json Session::addStep(const std::string& filterName) {
  std::lock_guard lock(viewMutex());
  if (chain_.size() >= kMaxSteps) throw StudioError{409, "the chain has the most steps it may have"};
  auto step = newStepLocked(filterName);
  pushUndoLocked();
  chain_.push_back(step);
  ++revision_;
  return stepResponseLocked(step->id);
}

json Session::removeStep(int stepId) {
  std::lock_guard lock(viewMutex());
  stepLocked(stepId);
  pushUndoLocked();
  std::erase_if(chain_, [&](const auto& s) { return s->id == stepId; });
  ++revision_;
  return stateLocked();
}

json Session::moveStep(int stepId, std::size_t position) {
  std::lock_guard lock(viewMutex());
  stepLocked(stepId);
  if (position >= chain_.size()) throw StudioError{400, "position " + std::to_string(position) + " is past the chain's end"};
  pushUndoLocked();
  auto it = std::find_if(chain_.begin(), chain_.end(), [&](const auto& s) { return s->id == stepId; });
  auto step = *it;
  chain_.erase(it);
  chain_.insert(chain_.begin() + static_cast<std::ptrdiff_t>(position), step);
  ++revision_;
  return stateLocked();
}

json Session::setStepEnabled(int stepId, bool enabled) {
  std::lock_guard lock(viewMutex());
  Step& step = stepLocked(stepId);
  pushUndoLocked();
  step.enabled = enabled;
  ++revision_;
  return stateLocked();
}

json Session::view(int stepId) {
  std::lock_guard lock(viewMutex());
  return stepResponseLocked(stepId);
}

json Session::edit(int stepId, const json& request) {
  std::lock_guard lock(viewMutex());
  Step& step = stepLocked(stepId);
  std::int64_t gesture = -1;
  if (request.contains("gesture")) {
    if (!request["gesture"].is_number_integer()) throw StudioError{400, "\"gesture\" must be an integer"};
    gesture = request["gesture"].get<std::int64_t>();
  }
  NSView* control = nullptr;
  std::string key;
  if (request.contains("control")) {
    control = viewAtPath(step.view, readControlPath(request["control"]));
    if (!control) throw StudioError{404, "no control at that place in the view"};
    key = controlKey(*control);
    if (key.empty()) throw StudioError{400, "that view is not bound to an input"};
  } else if (request.contains("key")) {
    if (!request["key"].is_string()) throw StudioError{400, "\"key\" must be a string"};
    key = request["key"].get<std::string>();
    if (!hasKey(*step.view.filter, key))
      throw StudioError{404, step.view.filter->name() + " has no input " + key};
  } else {
    throw StudioError{400, "an edit needs a \"control\" or a \"key\""};
  }
  if (key == kCIInputImageKey) throw StudioError{400, "the chain supplies inputImage"};
  // An image input takes a file uploaded into the session's folder (setImageInput); typed text
  // would name a file anywhere on the server's machine.
  if (dynamic_cast<NSImageView*>(control) ||
      (!control && (hasImageWellFor(*step.view.view, key) || attributeClassForKey(*step.view.filter, key) == "CIImage")))
    throw StudioError{400, key + ": an image input takes an uploaded image file, not a typed value"};

  const bool sameGesture = gesture >= 0 && gesture == lastGesture_ && stepId == lastGestureStep_;
  const Snapshot before = snapshotLocked();
  try {
    if (request.contains("index")) {
      auto* popup = dynamic_cast<NSPopUpButton*>(control);
      if (!popup) throw StudioError{400, "\"index\" chooses an item of a pop-up button"};
      const json& index = request["index"];
      if (!index.is_number_integer()) throw StudioError{400, "\"index\" must be an integer"};
      const std::int64_t i = index.get<std::int64_t>();
      if (!popup->menu() || i < 0 || i >= popup->menu()->numberOfItems())
        throw StudioError{400, key + ": the menu has no item " + std::to_string(i)};
      if (!popup->userSelectItemAtIndex(i)) throw StudioError{400, key + ": that menu item cannot be chosen"};
    } else {
      if (!request.contains("value")) throw StudioError{400, "an edit needs a \"value\" (or an \"index\")"};
      const json& value = request["value"];
      std::string text;
      if (value.is_string()) {
        text = value.get<std::string>();
      } else if (value.is_number() || value.is_boolean()) {
        text = value.dump();
      } else {
        throw StudioError{400, "\"value\" must be a string, a number or a boolean"};
      }
      if (text.size() > 4096) throw StudioError{400, "\"value\" is too long"};
      if (control) {
        editControl(*control, key, text);
      } else {
        editBoundControl(step.view, key, text);
      }
    }
  } catch (const ValueError& e) {
    throw StudioError{400, e.what()};
  } catch (const NSException& e) {
    restoreLocked(before);
    throw StudioError{400, key + ": " + e.reason()};
  }
  if (!sameGesture) {
    undo_.push_back(before);
    if (undo_.size() > kMaxUndo) undo_.erase(undo_.begin());
  }
  redo_.clear();
  lastGesture_ = gesture;
  lastGestureStep_ = stepId;
  ++revision_;
  return stepResponseLocked(stepId);
}

json Session::setImageInput(int stepId, const std::vector<std::size_t>& controlPathIndices, const std::string& name,
                            const std::string& bytes) {
  const std::string type = checkImageBytes(bytes);
  std::lock_guard lock(viewMutex());
  Step& step = stepLocked(stepId);
  NSView* control = viewAtPath(step.view, controlPathIndices);
  if (!control || !dynamic_cast<NSImageView*>(control)) throw StudioError{404, "no image well at that place in the view"};
  const std::string key = controlKey(*control);
  if (key.empty()) throw StudioError{400, "that image well is not bound to an input"};
  if (key == kCIInputImageKey) throw StudioError{400, "the chain supplies inputImage"};
  const fs::path path = saveUploadLocked(name, type, bytes);
  const Snapshot before = snapshotLocked();
  try {
    editControl(*control, key, path.string());
  } catch (const ValueError& e) {
    throw StudioError{400, e.what()};
  }
  undo_.push_back(before);
  redo_.clear();
  lastGesture_ = -1;
  step.imageFiles[key] = path.filename().string();
  ++revision_;
  return stepResponseLocked(stepId);
}

json Session::undo() {
  std::lock_guard lock(viewMutex());
  if (undo_.empty()) throw StudioError{409, "nothing to undo"};
  redo_.push_back(snapshotLocked());
  restoreLocked(undo_.back());
  undo_.pop_back();
  lastGesture_ = -1;
  return stateLocked();
}

json Session::redo() {
  std::lock_guard lock(viewMutex());
  if (redo_.empty()) throw StudioError{409, "nothing to redo"};
  undo_.push_back(snapshotLocked());
  restoreLocked(redo_.back());
  redo_.pop_back();
  lastGesture_ = -1;
  return stateLocked();
}

// ---- recipes ----

json Session::recipeLocked(const std::string& outputFile, double quality, bool absolutePaths) const {
  if (!source_) throw StudioError{409, "open a picture first"};
  json images = {{"photo", {{"file", absolutePaths ? sourcePath_.string() : sourceName_}}}};
  json chain = json::array();
  for (const auto& step : chain_) {
    if (!step->enabled) continue;
    const CIFilter& filter = *step->view.filter;
    json inputs = json::object();
    for (const std::string& key : filter.inputKeys()) {
      if (key == kCIInputImageKey) {
        if (chain.empty()) inputs[key] = "@photo";
        continue;
      }
      if (isTextureIdentifierKey(key)) continue;
      const Value value = filter.valueForKey(key);
      if (auto file = step->imageFiles.find(key); file != step->imageFiles.end()) {
        const std::string name = "image" + std::to_string(step->id) + "-" + key;
        images[name] = {{"file", absolutePaths ? (dir_ / file->second).string() : file->second}};
        inputs[key] = "@" + name;
        continue;
      }
      if (!CIImage::fromValue(value).isNil()) continue;  // an image the studio cannot name
      if (isTextureNameKey(key) && hasKey(filter, textureIdentifierKeyForNameKey(key))) {
        // The texture now shown, so that a tag's random pick is the same when the recipe runs.
        const auto identifier = filter.valueForKey(textureIdentifierKeyForNameKey(key)).object<NSURL>();
        inputs[key] = identifier ? json(identifier->absoluteString()) : json(nullptr);
        continue;
      }
      const json j = jsonFromValue(value);
      if (j.is_string() && j.get<std::string>().starts_with("@")) {
        inputs[key] = "@" + j.get<std::string>();
      } else {
        inputs[key] = j;
      }
    }
    chain.push_back({{"filter", filter.name()}, {"inputs", inputs}});
  }
  json output = {{"file", outputFile}, {"quality", quality}};
  if (chain.empty()) output["image"] = "@photo";
  return {{"images", images}, {"chain", chain}, {"output", output}};
}

json Session::recipe(const std::string& outputFile, double quality) {
  std::lock_guard lock(viewMutex());
  return recipeLocked(outputFile, quality, false);
}

json Session::importRecipe(const std::string& text) {
  json doc;
  try {
    doc = parseRecipeJSON(text);
  } catch (const RecipeError& e) {
    throw StudioError{400, e.what()};
  }
  if (doc.contains("chain") && !doc["chain"].is_array()) throw StudioError{400, "recipe \"chain\" must be an array of steps"};
  const json chain = doc.value("chain", json::array());
  if (chain.size() > kMaxSteps) throw StudioError{400, "the recipe has more steps than the studio takes"};
  std::lock_guard lock(viewMutex());
  std::vector<std::shared_ptr<Step>> steps;
  json warnings = json::array();
  for (std::size_t i = 0; i < chain.size(); ++i) {
    const json& s = chain[i];
    const std::string where = "chain step " + std::to_string(i + 1);
    if (!s.is_object() || !s.contains("filter") || !s["filter"].is_string())
      throw StudioError{400, where + " needs a \"filter\" name string"};
    const std::string name = s["filter"].get<std::string>();
    if (!CIFilter::registrationForName(name)) throw StudioError{400, where + ": unknown filter \"" + name + "\""};
    auto step = newStepLocked(name);
    const CIFilterRef& filter = step->view.filter;
    const json inputs = s.value("inputs", json::object());
    if (!inputs.is_object()) throw StudioError{400, where + ": \"inputs\" must be an object"};
    for (const auto& [key, given] : inputs.items()) {
      if (!hasKey(*filter, key)) throw StudioError{400, where + " (" + name + "): unknown key \"" + key + "\""};
      if (given.is_string() && given.get<std::string>().starts_with("@") &&
          !given.get<std::string>().starts_with("@@")) {
        if (key != kCIInputImageKey)
          warnings.push_back(where + " (" + name + "): " + key + " names an image of the recipe; open it in the view");
        continue;
      }
      try {
        const Value value = valueFromJSON(given, attributeClassForKey(*filter, key), key,
                                          [](const std::string& n) -> CIImage { throw ValueError("unknown image @" + n); });
        filter->setValue(value, key);
      } catch (const ValueError& e) {
        throw StudioError{400, where + " (" + name + "): " + e.what()};
      } catch (const std::exception& e) {
        throw StudioError{400, where + " (" + name + "): " + e.what()};
      }
    }
    steps.push_back(step);
  }
  pushUndoLocked();
  chain_ = std::move(steps);
  ++revision_;
  json out = stateLocked();
  out["warnings"] = warnings;
  return out;
}

// ---- previews ----

Preview Session::preview(int maxSide, bool before, bool draft) {
  maxSide = std::clamp(maxSide, kMinPreviewSide, kMaxPreviewSide);
  using Clock = std::chrono::steady_clock;
  auto mark = Clock::now();
  std::string timing;
  const auto stage = [&](const char* name) {
    const auto now = Clock::now();
    if (!timing.empty()) timing += ", ";
    timing += std::string(name) + ";dur=" + std::to_string(std::chrono::duration<double, std::milli>(now - mark).count());
    mark = now;
  };
  const std::uint64_t ticket = before ? 0 : ++previewTicket_;
  std::lock_guard renderLock(renderMutex_);
  Preview preview;
  stage("wait");
  if (!before && ticket != previewTicket_.load()) {
    preview.superseded = true;
    return preview;
  }
  CIImage image;
  CGRect baseExtent;
  {
    std::lock_guard lock(viewMutex());
    if (!source_) throw StudioError{409, "open a picture first"};
    if (baseSide_ != maxSide || !base_) {
      CGImageRef thumb = CGImageSourceCreateThumbnailAtIndex(
          source_, 0,
          Dictionary{{kCGImageSourceThumbnailMaxPixelSize, maxSide},
                     {kCGImageSourceCreateThumbnailFromImageAlways, Value::boolean(true)}});
      thumb = CGImageCreateWithBitsPerComponent(thumb, 8);
      if (!thumb) throw StudioError{422, "the picture cannot be decoded: " + CGImageSourceGetLastError(source_)};
      base_ = CIImage::imageWithRGBA8(thumb->pixels.data(), thumb->width, thumb->height, thumb->bytesPerRow);
      baseBitmap_ = thumb;
      draftBase_ = {};
      baseSide_ = maxSide;
      stage("decode");
    }
    if (draft && !draftBase_) {
      const CGImageRef half = CGImageCreateScaled(baseBitmap_, std::max<std::size_t>(1, (baseBitmap_->width + 1) / 2),
                                                  std::max<std::size_t>(1, (baseBitmap_->height + 1) / 2));
      if (half) draftBase_ = CIImage::imageWithRGBA8(half->pixels.data(), half->width, half->height, half->bytesPerRow);
      stage("draft");
    }
    image = draft && draftBase_ ? draftBase_ : base_;
    baseExtent = image.extent();
    preview.scale = width_ ? baseExtent.size.width / static_cast<double>(width_) : 1;
    if (!before) {
      for (const auto& step : chain_) {
        if (!step->enabled) continue;
        const CIFilterRef& filter = step->view.filter;
        if (hasKey(*filter, kCIInputImageKey)) filter->setValue(Value(image), kCIInputImageKey);
        try {
          image = filterAtScale(filter, preview.scale)->outputImage();
        } catch (const std::exception& e) {
          throw StudioError{422, filter->name() + ": " + e.what()};
        }
      }
    }
  }
  if (!image) throw StudioError{422, "the chain's result is empty (does a filter lack its input image?)"};
  CGRect extent = image.extent();
  if (CGRectIsInfinite(extent)) {
    image = image.imageByCroppingToRect(baseExtent);
    extent = baseExtent;
  }
  extent = CGRectIntegral(extent);
  if (CGRectIsNull(extent) || CGRectIsEmpty(extent)) throw StudioError{422, "the chain's result is empty"};
  // A result much larger than the picture (a resize, a wide border) is shown scaled down.
  const double side = draft ? maxSide / 2.0 : maxSide;
  const double limit = side * side;
  const double pixels = extent.size.width * extent.size.height;
  if (pixels > limit) {
    const double s = std::sqrt(limit / pixels);
    image = image.imageByApplyingTransform(CGAffineTransformMakeScale(s, s));
    extent = CGRectIntegral(image.extent());
    preview.scale *= s;
  }
  const std::size_t w = static_cast<std::size_t>(extent.size.width), h = static_cast<std::size_t>(extent.size.height);
  stage("graph");
  auto bitmap = CGImageCreateBlank(w, h, 8);
  // A render that a newer preview makes stale stops at its next tile rather than holding the
  // newer one back (the picture alone, `before`, always finishes).
  CIContextOptions options;
  if (!before)
    options.progress = [this, ticket](double) {
      if (previewTicket_.load() != ticket) throw PreviewSuperseded{};
    };
  try {
    const CIContext context(options);
    context.render(image, bitmap->pixels.data(), static_cast<std::ptrdiff_t>(bitmap->bytesPerRow), extent,
                   CIRenderFormat::RGBA8);
  } catch (const PreviewSuperseded&) {
    preview.superseded = true;
    return preview;
  } catch (const std::exception& e) {
    throw StudioError{422, std::string("cannot render the preview: ") + e.what()};
  }
  stage("render");
  // Transparent parts are drawn over the page's checkerboard here, so that every preview is a
  // JPEG: encoding a screenful with transparency (PNG, WebP) takes ten to a hundred times longer.
  for (std::size_t y = 0; y < h; ++y) {
    std::uint8_t* row = bitmap->pixels.data() + y * bitmap->bytesPerRow;
    for (std::size_t x = 0; x < w; ++x) {
      std::uint8_t* p = row + 4 * x;
      if (p[3] == 255) continue;
      const unsigned a = p[3], back = ((x / kCheckerSquare + y / kCheckerSquare) % 2) ? 0x20 : 0x2a;
      for (int c = 0; c < 3; ++c) p[c] = static_cast<std::uint8_t>((p[c] * a + back * (255 - a) + 127) / 255);
      p[3] = 255;
    }
  }
  bitmap->hasAlpha = false;
  const fs::path file = dir_ / (before ? "before.jpg" : "preview.jpg");
  auto dest = CGImageDestinationCreateWithURL(file.string(), kUTTypeJPEG);
  if (!dest || !CGImageDestinationAddImage(dest, bitmap, Dictionary{{kCGImageDestinationLossyCompressionQuality, kPreviewQuality}}) ||
      !CGImageDestinationFinalize(dest))
    throw StudioError{500, "cannot encode the preview"};
  preview.bytes = readFile(file);
  std::error_code ec;
  fs::remove(file, ec);
  stage("encode");
  preview.timing = timing;
  preview.contentType = "image/jpeg";
  preview.width = w;
  preview.height = h;
  return preview;
}

// ---- exports ----

json Session::startExport(const std::string& format, double quality) {
  std::string ext;
  if (format == "jpeg" || format == "jpg") ext = ".jpg";
  else if (format == "png") ext = ".png";
  else if (format == "webp") ext = ".webp";
  else throw StudioError{400, "unknown format \"" + format + "\" (jpeg, png or webp)"};
  if (!std::isfinite(quality) || quality < 0 || quality > 1) throw StudioError{400, "\"quality\" must lie in 0...1"};
  std::lock_guard lock(viewMutex());
  auto job = std::make_shared<ExportJob>();
  job->id = nextExport_++;
  job->fileName = "export-" + std::to_string(job->id) + ext;
  job->path = dir_ / job->fileName;
  job->type = ext == ".jpg" ? "image/jpeg" : ext == ".png" ? "image/png" : "image/webp";
  job->downloadName = fs::path(sourceName_).stem().string() + "-qvfilter" + ext;
  const json recipe = recipeLocked(job->path.string(), quality, true);
  // Older exports go: only the newest is kept on disk.
  for (auto it = exports_.begin(); it != exports_.end();) {
    if (it->second->done) {
      if (it->second->worker.joinable()) it->second->worker.join();
      std::error_code ec;
      fs::remove(it->second->path, ec);
      it = exports_.erase(it);
    } else {
      ++it;
    }
  }
  if (exports_.size() >= 2) throw StudioError{429, "an export is still running"};
  exports_[job->id] = job;
  job->worker = std::thread([job, recipe, dir = dir_] {
    try {
      RecipeOptions options;
      options.progress = [job](double f) { job->progress = f; };
      const RecipeGraph graph = buildRecipe(recipe, dir.string(), options);
      renderRecipe(graph, options);
    } catch (const std::exception& e) {
      job->error = e.what();
    }
    job->progress = 1;
    job->done = true;
  });
  return {{"job", job->id}, {"progress", 0.0}, {"done", false}};
}

json Session::exportStatus(std::uint64_t id) {
  std::lock_guard lock(viewMutex());
  auto it = exports_.find(id);
  if (it == exports_.end()) throw StudioError{404, "no export " + std::to_string(id)};
  const auto& job = it->second;
  json out = {{"job", id}, {"progress", job->progress.load()}, {"done", job->done.load()}};
  if (job->done && !job->error.empty()) out["error"] = job->error;
  if (job->done && job->error.empty()) out["name"] = job->downloadName;
  return out;
}

std::shared_ptr<ExportJob> Session::finishedExport(std::uint64_t id) {
  std::lock_guard lock(viewMutex());
  auto it = exports_.find(id);
  if (it == exports_.end()) throw StudioError{404, "no export " + std::to_string(id)};
  if (!it->second->done) throw StudioError{409, "the export is not finished"};
  if (!it->second->error.empty()) throw StudioError{422, it->second->error};
  return it->second;
}

// ---- sessions ----

std::shared_ptr<Session> SessionTable::create() {
  std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  std::erase_if(sessions_, [&](const auto& entry) { return now - entry.second->lastUsed() > kIdleLimit; });
  while (sessions_.size() >= kMaxSessions) {
    auto oldest = std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
      return a.second->lastUsed() < b.second->lastUsed();
    });
    sessions_.erase(oldest);
  }
  const std::string id = randomHex(16);
  const fs::path dir = root_ / id;
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) throw StudioError{500, "cannot make the session's folder: " + ec.message()};
  auto session = std::make_shared<Session>(id, dir);
  sessions_[id] = session;
  return session;
}

std::shared_ptr<Session> SessionTable::find(const std::string& id) {
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(id);
  if (it == sessions_.end()) throw StudioError{404, "no such session (it may have expired): reload the page"};
  it->second->touch();
  return it->second;
}

bool SessionTable::remove(const std::string& id) {
  std::lock_guard lock(mutex_);
  return sessions_.erase(id) > 0;
}

void SessionTable::clear() {
  std::map<std::string, std::shared_ptr<Session>> sessions;
  {
    std::lock_guard lock(mutex_);
    sessions.swap(sessions_);
  }
}

}  // namespace qv::studio
