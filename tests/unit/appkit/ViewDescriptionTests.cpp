// View descriptions: building views from them, refusing broken ones with a clear reason, and
// view controllers that load them from a bundle.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "AppKit/NSControl.h"
#include "AppKit/NSViewController.h"
#include "AppKit/NSViewDescription.h"
#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

std::string reasonOf(const json& description) {
  try {
    NSViewDescriptionFromJSON(description, "Test");
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    return e.reason();
  }
  return "no exception";
}

json withSubview(const json& view) { return {{"frame", {0, 0, 100, 50}}, {"subviews", {view}}}; }

using Descriptions = std::map<std::string, std::string>;

// A bundle in a temporary directory holding the given view descriptions.
struct DescriptionBundle {
  fs::path dir;
  std::shared_ptr<NSBundle> bundle;
  explicit DescriptionBundle(const Descriptions& descriptions) {
    static int counter = 0;
    dir = fs::temp_directory_path() / ("qv-appkit-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    fs::create_directories(dir / "Resources/Views");
    writePropertyList(Dictionary{{"CFBundleIdentifier", "org.qvfilter.test.appkit" + std::to_string(counter)}},
                      (dir / "Info.plist").string());
    for (const auto& [name, text] : descriptions) std::ofstream(dir / "Resources/Views" / (name + ".json")) << text;
    bundle = NSBundle::bundleWithPath(dir.string());
  }
  ~DescriptionBundle() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
};

const char* kSliderView = R"({"frame": [0, 0, 200, 60], "subviews": [
  {"kind": "label", "frame": [10, 30, 60, 20], "title": "Amount:"},
  {"kind": "slider", "frame": [80, 30, 110, 20], "outlet": "amountSlider", "minValue": -1, "maxValue": 1},
  {"kind": "view", "frame": [0, 0, 200, 30], "subviews": [
    {"kind": "textField", "frame": [80, 5, 60, 20], "outlet": "amountField",
     "numberFormat": {"minimumFractionDigits": 1, "maximumFractionDigits": 3}},
    {"kind": "checkBox", "frame": [150, 5, 40, 20], "outlet": "flag", "title": "On"}]}]})";

}  // namespace

TEST(ViewDescription, BuildsTheDescribedViews) {
  const NSViewDescription d = NSViewDescriptionFromJSON(json::parse(kSliderView), "SliderView");
  ASSERT_NE(d.view, nullptr);
  EXPECT_TRUE(CGRectEqualToRect(d.view->frame(), CGRectMake(0, 0, 200, 60)));
  ASSERT_EQ(d.view->subviews().size(), 3u);
  auto* label = dynamic_cast<NSTextField*>(d.view->subviews()[0].get());
  ASSERT_NE(label, nullptr);
  EXPECT_FALSE(label->isEditable());
  EXPECT_EQ(label->stringValue(), "Amount:");
  EXPECT_EQ(NSViewDescriptionKind(*label), "label");
  ASSERT_EQ(d.outlets.size(), 3u);
  auto* slider = dynamic_cast<NSSlider*>(d.outlets.at("amountSlider"));
  ASSERT_NE(slider, nullptr);
  EXPECT_EQ(slider->minValue(), -1);
  EXPECT_EQ(slider->maxValue(), 1);
  EXPECT_EQ(slider->identifier(), "amountSlider");
  EXPECT_TRUE(CGRectEqualToRect(slider->frame(), CGRectMake(80, 30, 110, 20)));
  auto* field = dynamic_cast<NSTextField*>(d.outlets.at("amountField"));
  ASSERT_NE(field, nullptr);
  ASSERT_TRUE(field->formatter().has_value());
  EXPECT_EQ(field->formatter()->minimumFractionDigits, 1);
  EXPECT_EQ(field->superview(), d.view->subviews()[2].get());
  EXPECT_EQ(NSViewDescriptionKind(*d.outlets.at("flag")), "checkBox");
  EXPECT_EQ(dynamic_cast<NSButton*>(d.outlets.at("flag"))->title(), "On");
}

TEST(ViewDescription, EveryKindHasItsClass) {
  const json all = {{"frame", {0, 0, 10, 10}},
                    {"subviews",
                     {{{"kind", "popUpButton"}, {"frame", {0, 0, 1, 1}}},
                      {{"kind", "colorWell"}, {"frame", {0, 0, 1, 1}}},
                      {{"kind", "imageWell"}, {"frame", {0, 0, 1, 1}}},
                      {{"kind", "textField"}, {"frame", {0, 0, 1, 1}}}}}};
  const NSViewDescription d = NSViewDescriptionFromJSON(all, "All");
  std::vector<std::string> kinds, classes;
  for (const auto& v : d.view->subviews()) {
    kinds.push_back(NSViewDescriptionKind(*v));
    classes.push_back(v->className());
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{"popUpButton", "colorWell", "imageWell", "textField"}));
  EXPECT_EQ(classes, (std::vector<std::string>{"NSPopUpButton", "NSColorWell", "NSImageView", "NSTextField"}));
}

TEST(ViewDescription, BrokenDescriptionsSayWhatAndWhere) {
  EXPECT_EQ(reasonOf(json::array()), "view description Test: expected an object with \"frame\" and \"subviews\"");
  EXPECT_EQ(reasonOf({{"subviews", json::array()}}), "view description Test: missing \"frame\"");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "slidr"}, {"frame", {0, 0, 1, 1}}})),
            "view description Test: subviews[0].kind: unknown kind \"slidr\"");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "label"}})), "view description Test: subviews[0]: missing \"frame\"");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "label"}, {"frame", {0, 0, 1}}})),
            "view description Test: subviews[0].frame: expected 4 numbers [x, y, width, height]");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "label"}, {"frame", {0, 0, -1, 1}}})),
            "view description Test: subviews[0].frame: width and height must not be negative");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "slider"}, {"frame", {0, 0, 1, 1}}, {"minValue", 2}, {"maxValue", 1}})),
            "view description Test: subviews[0]: minValue exceeds maxValue");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "slider"}, {"frame", {0, 0, 1, 1}}})),
            "view description Test: subviews[0]: a slider needs minValue and maxValue");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "label"}, {"frame", {0, 0, 1, 1}}, {"colour", "red"}})),
            "view description Test: subviews[0]: unknown key \"colour\"");
  EXPECT_EQ(reasonOf(withSubview({{"kind", "label"}, {"frame", {0, 0, 1, 1}}, {"title", 3}})),
            "view description Test: subviews[0].title: expected a string");
  EXPECT_EQ(reasonOf(withSubview(
                {{"kind", "textField"}, {"frame", {0, 0, 1, 1}}, {"numberFormat", {{"maximumFractionDigits", 40}}}})),
            "view description Test: subviews[0].numberFormat.maximumFractionDigits: expected an integer from 0 to 15");
  const json twice = {{"frame", {0, 0, 1, 1}},
                      {"subviews",
                       {{{"kind", "label"}, {"frame", {0, 0, 1, 1}}, {"outlet", "a"}},
                        {{"kind", "label"}, {"frame", {0, 0, 1, 1}}, {"outlet", "a"}}}}};
  EXPECT_EQ(reasonOf(twice), "view description Test: subviews[1].outlet: outlet \"a\" given twice");
  json deep = {{"kind", "label"}, {"frame", {0, 0, 1, 1}}};
  for (int i = 0; i < 40; ++i) deep = {{"kind", "view"}, {"frame", {0, 0, 1, 1}}, {"subviews", {deep}}};
  EXPECT_NE(reasonOf(withSubview(deep)).find("nested deeper than 32"), std::string::npos);
}

TEST(ViewController, LoadsItsDescriptionFromTheBundle) {
  DescriptionBundle b(Descriptions{{"SliderView", kSliderView}});
  ASSERT_NE(b.bundle, nullptr);
  NSViewController controller("SliderView", b.bundle);
  EXPECT_FALSE(controller.isViewLoaded());
  EXPECT_EQ(controller.outletNamed("amountSlider"), nullptr);
  const NSViewRef view = controller.view();
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(controller.view(), view);  // loaded once
  EXPECT_NE(controller.outlet<NSSlider>("amountSlider"), nullptr);
  EXPECT_EQ(controller.outlet<NSTextField>("amountSlider"), nullptr);  // another class
}

TEST(ViewController, MissingOrBrokenDescriptionsRaiseWithTheName) {
  DescriptionBundle b(
      Descriptions{{"Broken", "{\"frame\": [0, 0, 1, 1], "}, {"Strange", "{\"frame\": [0, 0, 1, 1], \"size\": 2}"}});
  try {
    NSViewController("NoSuchView", b.bundle).view();
    FAIL() << "a missing description loaded";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    EXPECT_NE(e.reason().find("could not load the view description \"NoSuchView\": no resource Views/NoSuchView.json"),
              std::string::npos)
        << e.reason();
  }
  try {
    NSViewController("Broken", b.bundle).view();
    FAIL() << "a broken description loaded";
  } catch (const NSException& e) {
    EXPECT_TRUE(e.reason().starts_with("view description Broken: not JSON: ")) << e.reason();
  }
  try {
    NSViewController("Strange", b.bundle).view();
    FAIL() << "a description with an unknown key loaded";
  } catch (const NSException& e) {
    EXPECT_EQ(e.reason(), "view description Strange: unknown key \"size\"");
  }
  NSViewController noBundle("SliderView", nullptr);
  EXPECT_THROW(noBundle.view(), NSException);
  EXPECT_FALSE(noBundle.isViewLoaded());
  // An empty name loads no view at all.
  NSViewController none("", b.bundle);
  EXPECT_EQ(none.view(), nullptr);
}

namespace {
class NeedsOutlets : public NSViewController {
 public:
  using NSViewController::NSViewController;
  void loadView() override {
    NSViewController::loadView();
    requiredOutlet<NSSlider>(outletName);
  }
  std::string outletName;
};
}  // namespace

TEST(ViewController, RequiredOutletsNameWhatIsMissing) {
  DescriptionBundle b(Descriptions{{"SliderView", kSliderView}});
  NeedsOutlets controller("SliderView", b.bundle);
  controller.outletName = "radiusSlider";
  try {
    controller.view();
    FAIL();
  } catch (const NSException& e) {
    EXPECT_EQ(e.reason(), "view description SliderView: no outlet \"radiusSlider\" (NSSlider)");
  }
  NeedsOutlets wrongClass("SliderView", b.bundle);
  wrongClass.outletName = "amountField";
  try {
    wrongClass.view();
    FAIL();
  } catch (const NSException& e) {
    EXPECT_EQ(e.reason(), "view description SliderView: outlet \"amountField\" is a NSTextField, not a NSSlider");
  }
  NeedsOutlets fine("SliderView", b.bundle);
  fine.outletName = "amountSlider";
  EXPECT_NE(fine.view(), nullptr);
}

TEST(NSView, FramesBoundsAndSubviews) {
  auto parent = std::make_shared<NSView>(CGRectMake(10, 20, 300, 200));
  EXPECT_TRUE(CGRectEqualToRect(parent->bounds(), CGRectMake(0, 0, 300, 200)));
  auto child = std::make_shared<NSView>(CGRectMake(1, 2, 3, 4));
  parent->addSubview(child);
  EXPECT_EQ(child->superview(), parent.get());
  auto other = std::make_shared<NSView>();
  other->addSubview(child);  // moves
  EXPECT_TRUE(parent->subviews().empty());
  EXPECT_EQ(child->superview(), other.get());
  child->removeFromSuperview();
  EXPECT_TRUE(other->subviews().empty());
  EXPECT_EQ(child->superview(), nullptr);
}
