// The parameter-view controllers: the views the filters hand out, their bindings in both
// directions, the composite's "None" mask, the texture tile's unbound check box, and every
// controller's precondition with its exact condition text, file and line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "AppKit/NSColor.h"
#include "CoreImage/CIColor.h"
#include "FilterTestSupport.h"
#include "Filters/QVFilterBlur.h"
#include "Filters/QVFilterBlurComposite.h"
#include "Filters/QVFilterBorder.h"
#include "Filters/QVFilterColorComposite.h"
#include "Filters/QVFilterGradientComposite.h"
#include "Filters/QVFilterNoiseComposite.h"
#include "Filters/QVFilterOffsetComposite.h"
#include "Filters/QVFilterScaleComposite.h"
#include "Filters/QVFilterTextureBorder.h"
#include "Filters/QVFilterTextureComposite.h"
#include "Filters/QVFilterTextureTile.h"
#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"
#include "Views/QVFilterBlurCompositeIKFilterUIViewController.h"
#include "Views/QVFilterBlurIKFilterUIViewController.h"
#include "Views/QVFilterColorCompositeIKFilterUIViewController.h"
#include "Views/QVFilterColorWellValueTransformer.h"
#include "Views/QVFilterCompositeIKFilterUIViewController.h"
#include "Views/QVFilterGradientCompositeIKFilterUIViewController.h"
#include "Views/QVFilterNoiseCompositeIKFilterUIViewController.h"
#include "Views/QVFilterOffsetCompositeIKFilterUIViewController.h"
#include "Views/QVFilterScaleCompositeIKFilterUIViewController.h"
#include "Views/QVFilterTextureBorderIKFilterUIViewController.h"
#include "Views/QVFilterTextureIKFilterUIViewController.h"

namespace {

using Views = qvtest::BundleTest;

template <class T>
std::shared_ptr<T> made() {
  auto filter = std::make_shared<T>();
  filter->setDefaults();
  return filter;
}

// The blur takes its defaults from the bundle's filter description: made by name.
template <>
std::shared_ptr<QVFilterBlur> made<QVFilterBlur>() {
  return std::dynamic_pointer_cast<QVFilterBlur>(qvtest::makeFilter("QVFilterBlur"));
}

std::shared_ptr<NSBundle> plugin() { return QVFilterIKFilterUIViewController::pluginBundle(); }

// The view's controls bound to one key path, with the binding name.
std::vector<std::pair<NSView*, std::string>> boundTo(const NSViewRef& view, const std::string& key) {
  std::vector<std::pair<NSView*, std::string>> found;
  std::function<void(const NSViewRef&)> walk = [&](const NSViewRef& v) {
    for (const auto& binding : v->boundBindings())
      if (v->infoForBinding(binding)->observedKeyPath == "selection." + key) found.emplace_back(v.get(), binding);
    for (const auto& sub : v->subviews()) walk(sub);
  };
  walk(view);
  return found;
}

struct Precondition {
  std::string reason, file, method;
  int line = 0;
};

Precondition preconditionOf(QVFilterIKFilterUIViewController& controller, CIFilterRef filter) {
  controller.setRepresentedObject(std::move(filter));
  Precondition p;
  try {
    controller.view();
    p.reason = "no exception";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    p = {e.reason(), e.file(), e.method(), e.line()};
  }
  EXPECT_FALSE(controller.isViewLoaded());  // raised before the view was built
  return p;
}

void expectPrecondition(QVFilterIKFilterUIViewController& controller, CIFilterRef filter, const std::string& condition,
                        const std::string& controllerClass, int line) {
  const Precondition p = preconditionOf(controller, std::move(filter));
  EXPECT_EQ(p.reason, "Invalid parameter not satisfying: " + condition);
  EXPECT_EQ(p.file, "FilterActions/ImageUnit/" + controllerClass);
  EXPECT_EQ(p.line, line);
  EXPECT_EQ(p.method, "-[" + controllerClass + " loadView]");
}

std::string kindCondition(const std::string& filterClass) {
  return "[self representedObject] != nil && [[self representedObject] isKindOfClass:[" + filterClass + " class]]";
}

const std::string kCompositeCondition = "[[self representedObject] isKindOfClass:[QVFilterComposite class]]";

}  // namespace

// ---- Hand-out ----

TEST_F(Views, TheTenFiltersHandOutTheirViewsAndOthersNone) {
  const std::vector<CIFilterRef> filters = {made<QVFilterBlur>(),
                                            made<QVFilterColorComposite>(),
                                            made<QVFilterBlurComposite>(),
                                            made<QVFilterNoiseComposite>(),
                                            made<QVFilterTextureComposite>(),
                                            made<QVFilterTextureTile>(),
                                            made<QVFilterGradientComposite>(),
                                            made<QVFilterTextureBorder>(),
                                            made<QVFilterOffsetComposite>(),
                                            made<QVFilterScaleComposite>()};
  for (const CIFilterRef& filter : filters) {
    const auto view = filter->provideViewForUIConfiguration({}, {});
    ASSERT_NE(view, nullptr) << typeid(*filter).name();
    EXPECT_EQ(view->filter(), filter);
    EXPECT_EQ(view->objectController()->content(), filter);
    // The described view fills the IKFilterUIView.
    ASSERT_EQ(view->subviews().size(), 1u);
    EXPECT_TRUE(CGRectEqualToRect(view->subviews()[0]->frame(), view->bounds()));
    EXPECT_GT(view->bounds().size.height, 0);
  }
  EXPECT_EQ(made<QVFilterBorder>()->provideViewForUIConfiguration({}, {}), nullptr);
}

TEST_F(Views, BaseLoadViewWrapsTheDescribedView) {
  QVFilterIKFilterUIViewController controller("BlurView", plugin());
  auto filter = made<QVFilterBlur>();
  controller.setRepresentedObject(filter);
  const auto view = std::dynamic_pointer_cast<IKFilterUIView>(controller.view());
  ASSERT_NE(view, nullptr);
  EXPECT_TRUE(CGRectEqualToRect(view->frame(), CGRectMake(0, 0, 380, 80)));
  EXPECT_EQ(view->filter(), filter);
  // Without a description the wrapper has the zero frame.
  QVFilterIKFilterUIViewController empty("", plugin());
  empty.setRepresentedObject(filter);
  empty.view();
  ASSERT_NE(empty.filterUIView(), nullptr);
  EXPECT_TRUE(CGRectEqualToRect(empty.filterUIView()->frame(), CGRectZero));
  EXPECT_TRUE(empty.filterUIView()->subviews().empty());
}

// ---- Blur ----

TEST_F(Views, BlurViewBindsRadiusAndBlurNameBothWays) {
  auto filter = made<QVFilterBlur>();
  auto controller = std::make_shared<QVFilterBlurIKFilterUIViewController>("BlurView", plugin());
  controller->setRepresentedObject(filter);
  const auto view = std::dynamic_pointer_cast<IKFilterUIView>(controller->view());
  ASSERT_NE(view, nullptr);
  NSSlider* slider = controller->blurFilterRadiusSlider();
  NSTextField* field = controller->blurFilterRadiusTextField();
  NSPopUpButton* popup = controller->blurFilterNamePopupButton();
  ASSERT_TRUE(slider && field && popup);

  // The slider follows the filter's slider attributes.
  const Value radius = filter->attributes()[kCIInputRadiusKey];
  EXPECT_EQ(slider->minValue(), radius[kCIAttributeSliderMin].doubleValue());
  EXPECT_EQ(slider->maxValue(), radius[kCIAttributeSliderMax].doubleValue());

  const NSBindingInfo* info = slider->infoForBinding(NSValueBinding);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->observedObject, view->objectController());
  EXPECT_EQ(info->observedKeyPath, "selection.inputRadius");
  EXPECT_TRUE(info->options.empty());
  EXPECT_EQ(field->infoForBinding(NSValueBinding)->observedKeyPath, "selection.inputRadius");
  EXPECT_EQ(popup->infoForBinding(NSSelectedObjectBinding)->observedKeyPath, "selection.inputBlurFilterName");

  EXPECT_EQ(slider->doubleValue(), 10);  // the defaults
  EXPECT_EQ(field->stringValue(), "10");
  EXPECT_EQ(popup->titleOfSelectedItem(), "CIGaussianBlur");
  EXPECT_EQ(popup->menu()->numberOfItems(),
            static_cast<std::int64_t>(CIFilter::filterNamesInCategory(kCICategoryBlur).size()));

  slider->userSetDoubleValue(30);
  EXPECT_EQ(filter->valueForKey(kCIInputRadiusKey), Value(30.0));
  EXPECT_EQ(field->stringValue(), "30");  // the other control bound to the key follows
  ASSERT_TRUE(field->userSetStringValue("12.5"));
  EXPECT_EQ(filter->valueForKey(kCIInputRadiusKey), Value(12.5));
  EXPECT_EQ(slider->doubleValue(), 12.5);
  ASSERT_TRUE(popup->userSelectItemAtIndex(popup->menu()->indexOfItemWithRepresentedObject("CIBoxBlur")));
  EXPECT_EQ(filter->inputBlurFilterName(), Value("CIBoxBlur"));

  filter->setInputRadius(Value(3));
  filter->setInputBlurFilterName(Value("CIDiscBlur"));
  EXPECT_EQ(slider->doubleValue(), 3);
  EXPECT_EQ(field->stringValue(), "3");
  EXPECT_EQ(popup->titleOfSelectedItem(), "CIDiscBlur");
}

TEST_F(Views, AMissingOutletIsAClearError) {
  // A bundle whose BlurView lacks the text field.
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("qv-views-outlet-" + std::to_string(getpid()));
  fs::create_directories(dir / "Resources/Views");
  writePropertyList(Dictionary{{"CFBundleIdentifier", "org.qvfilter.test.views.outlets"}},
                    (dir / "Info.plist").string());
  std::ofstream(dir / "Resources/Views/BlurView.json") << R"({"frame": [0, 0, 100, 40], "subviews": [
             {"kind": "slider", "frame": [0, 0, 50, 20], "outlet": "blurFilterRadiusSlider", "minValue": 0, "maxValue": 1},
             {"kind": "popUpButton", "frame": [50, 0, 50, 20], "outlet": "blurFilterNamePopupButton"}]})";
  QVFilterBlurIKFilterUIViewController controller("BlurView", NSBundle::bundleWithPath(dir.string()));
  controller.setRepresentedObject(made<QVFilterBlur>());
  try {
    controller.view();
    ADD_FAILURE() << "a view without its outlet loaded";
  } catch (const NSException& e) {
    EXPECT_EQ(e.reason(), "view description BlurView: no outlet \"blurFilterRadiusTextField\" (NSTextField)");
  }
  QVFilterBlurIKFilterUIViewController missing("NoSuchView", plugin());
  missing.setRepresentedObject(made<QVFilterBlur>());
  EXPECT_THROW(missing.view(), NSException);
  fs::remove_all(dir);
}

// ---- Composite family ----

TEST_F(Views, CompositeShowsNoneForAnUnsetMaskAndBindsItsControls) {
  auto filter = made<QVFilterNoiseComposite>();
  filter->setValue(Value(), "inputMaskTextureName");
  auto controller = std::make_shared<QVFilterNoiseCompositeIKFilterUIViewController>("NoiseCompositeView", plugin());
  controller->setRepresentedObject(filter);
  ASSERT_NE(controller->view(), nullptr);
  NSPopUpButton* mask = controller->maskIdentifierPopupButton();
  ASSERT_NE(mask, nullptr);
  EXPECT_EQ(mask->selectedItem()->tag(), QVFilterIKFilterUIViewControllerTexturesMenuNoneItemTag);
  EXPECT_EQ(mask->titleOfSelectedItem(), mask->menu()->itemAtIndex(0)->title());
  EXPECT_EQ(mask->infoForBinding(NSSelectedObjectBinding)->observedKeyPath, "selection.inputMaskTextureName");

  // Choosing a mask writes its identifier; choosing None again clears it.
  std::int64_t texture = -1;
  for (std::int64_t i = 0; i < mask->menu()->numberOfItems() && texture < 0; ++i)
    if (mask->menu()->itemAtIndex(i)->indentationLevel() == 1) texture = i;
  ASSERT_GE(texture, 0);
  ASSERT_TRUE(mask->userSelectItemAtIndex(texture));
  EXPECT_EQ(filter->valueForKey("inputMaskTextureName"), mask->menu()->itemAtIndex(texture)->representedObject());
  ASSERT_TRUE(mask->userSelectItemAtIndex(0));
  EXPECT_TRUE(filter->valueForKey("inputMaskTextureName").isNil());

  NSButton* orientation = controller->maskIdentifierMatchInputImageOrientationButton();
  orientation->userSetState(1);
  EXPECT_TRUE(filter->valueForKey("inputMaskTextureShouldMatchInputImageOrientation").boolValue());
  filter->setValue(Value::boolean(false), "inputMaskTextureShouldMatchInputImageOrientation");
  EXPECT_EQ(orientation->state(), 0);

  controller->compositeFilterAlphaSlider()->userSetDoubleValue(0.25);
  EXPECT_EQ(filter->inputCompositeAlpha(), Value(0.25));
  EXPECT_EQ(controller->compositeFilterAlphaTextField()->stringValue(), "0.25");
  NSPopUpButton* operations = controller->compositeFilterNamePopupButton();
  ASSERT_TRUE(
      operations->userSelectItemAtIndex(operations->menu()->indexOfItemWithRepresentedObject("CIMultiplyCompositing")));
  EXPECT_EQ(filter->inputCompositeFilterName(), Value("CIMultiplyCompositing"));

  // The noise view binds the alpha and operation controls a second time: one binding each.
  EXPECT_EQ(boundTo(controller->view(), "inputCompositeAlpha").size(), 2u);
  EXPECT_EQ(boundTo(controller->view(), "inputCompositeFilterName").size(), 1u);
}

TEST_F(Views, CompositeKeepsAChosenMaskSelected) {
  auto filter = made<QVFilterColorComposite>();
  const NSMenuRef menu = QVFilterIKFilterUIViewController::menuForTexturesWithTags({"mask"});
  ASSERT_GT(menu->numberOfItems(), 4);
  const Value chosen = menu->itemAtIndex(4)->representedObject();
  filter->setValue(chosen, "inputMaskTextureName");
  auto controller = std::make_shared<QVFilterColorCompositeIKFilterUIViewController>("ColorCompositeView", plugin());
  controller->setRepresentedObject(filter);
  controller->view();
  EXPECT_EQ(controller->maskIdentifierPopupButton()->indexOfSelectedItem(), 4);
}

TEST_F(Views, ColorWellsGoThroughTheTransformer) {
  auto filter = made<QVFilterColorComposite>();
  filter->setValue(CIColor::colorWithRed(0.2, 0.4, 0.6, 0.8), kCIInputColorKey);
  auto controller = std::make_shared<QVFilterColorCompositeIKFilterUIViewController>("ColorCompositeView", plugin());
  controller->setRepresentedObject(filter);
  controller->view();
  NSColorWell* well = controller->colorWell();
  ASSERT_NE(well, nullptr);
  EXPECT_EQ(well->infoForBinding(NSValueBinding)->options,
            (Dictionary{{NSValueTransformerNameBindingOption, "QVFilterColorWellValueTransformer"}}));
  ASSERT_NE(well->color(), nullptr);
  EXPECT_DOUBLE_EQ(well->color()->blueComponent(), 0.6);
  EXPECT_DOUBLE_EQ(well->color()->alphaComponent(), 0.8);
  well->userSetColor(NSColor::colorWithSRGBRed(0, 1, 0, 1));
  const auto stored = CIColor::fromValue(filter->valueForKey(kCIInputColorKey));
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->green(), 1);
  EXPECT_EQ(stored->red(), 0);
}

TEST_F(Views, GradientBindsRadiiAndColours) {
  auto filter = made<QVFilterGradientComposite>();
  auto controller =
      std::make_shared<QVFilterGradientCompositeIKFilterUIViewController>("GradientCompositeView", plugin());
  controller->setRepresentedObject(filter);
  controller->view();
  controller->radius0Slider()->userSetDoubleValue(0.1);
  controller->radius1Slider()->userSetDoubleValue(0.6);
  EXPECT_EQ(filter->valueForKey("inputRadius0"), Value(0.1));
  EXPECT_EQ(filter->valueForKey("inputRadius1"), Value(0.6));
  controller->color1ColorWell()->userSetColor(NSColor::colorWithSRGBRed(1, 1, 1, 1));
  EXPECT_EQ(CIColor::fromValue(filter->valueForKey("inputColor1"))->red(), 1);
  filter->setValue(CIColor::colorWithRed(0.5, 0, 0), "inputColor0");
  EXPECT_DOUBLE_EQ(controller->color0ColorWell()->color()->redComponent(), 0.5);
  EXPECT_EQ(controller->color0ColorWell()->infoForBinding(NSValueBinding)->observedKeyPath, "selection.inputColor0");
}

TEST_F(Views, OffsetAndScaleSliders) {
  auto offset = made<QVFilterOffsetComposite>();
  auto oc = std::make_shared<QVFilterOffsetCompositeIKFilterUIViewController>("OffsetCompositeView", plugin());
  oc->setRepresentedObject(offset);
  oc->view();
  oc->inputOffsetSlider()->userSetDoubleValue(-0.25);
  EXPECT_EQ(offset->valueForKey("inputOffset"), Value(-0.25));
  auto scale = made<QVFilterScaleComposite>();
  auto sc = std::make_shared<QVFilterScaleCompositeIKFilterUIViewController>("ScaleCompositeView", plugin());
  sc->setRepresentedObject(scale);
  sc->view();
  scale->setValue(1.5, kCIInputScaleKey);
  EXPECT_EQ(sc->inputScaleSlider()->doubleValue(), 1.5);
  EXPECT_EQ(sc->inputScaleSlider()->infoForBinding(NSValueBinding)->observedKeyPath, "selection.inputScale");
}

TEST_F(Views, BlurCompositeBindsLikeTheBlur) {
  auto filter = made<QVFilterBlurComposite>();
  auto controller = std::make_shared<QVFilterBlurCompositeIKFilterUIViewController>("BlurCompositeView", plugin());
  controller->setRepresentedObject(filter);
  controller->view();
  controller->blurFilterRadiusTextField()->userSetStringValue("7");
  EXPECT_EQ(filter->valueForKey(kCIInputRadiusKey), Value(7.0));
  EXPECT_EQ(controller->blurFilterNamePopupButton()->infoForBinding(NSSelectedObjectBinding)->observedKeyPath,
            "selection.inputBlurFilterName");
}

// ---- Texture pickers ----

TEST_F(Views, TextureControllerOnATextureCompositeBindsTheCheckBox) {
  auto controller = QVFilterTextureIKFilterUIViewController::initWithTextureTags({"composite"});
  ASSERT_NE(controller, nullptr);
  EXPECT_EQ(controller->nibName(), "TextureView");
  EXPECT_EQ(controller->textureTags(), std::set<std::string>{"composite"});
  auto filter = made<QVFilterTextureComposite>();
  filter->setValue(Value(), "inputTextureName");
  controller->setRepresentedObject(filter);
  controller->view();
  NSPopUpButton* textures = controller->textureIdentifierPopupButton();
  EXPECT_EQ(textures->infoForBinding(NSSelectedObjectBinding)->observedKeyPath, "selection.inputTextureName");
  EXPECT_EQ(textures->indexOfSelectedItem(), -1);  // unlike the mask, no "None" selection
  NSButton* box = controller->textureIdentifierMatchInputImageOrientationButton();
  ASSERT_NE(box->infoForBinding(NSValueBinding), nullptr);
  box->userSetState(1);
  EXPECT_TRUE(filter->valueForKey("inputTextureShouldMatchInputImageOrientation").boolValue());
}

TEST_F(Views, TextureControllerOnATextureTileLeavesTheCheckBoxUnbound) {
  auto controller = QVFilterTextureIKFilterUIViewController::initWithTextureTags({"tile"});
  auto filter = made<QVFilterTextureTile>();
  controller->setRepresentedObject(filter);
  controller->view();
  EXPECT_NE(controller->textureIdentifierPopupButton()->infoForBinding(NSSelectedObjectBinding), nullptr);
  EXPECT_EQ(controller->textureIdentifierMatchInputImageOrientationButton()->infoForBinding(NSValueBinding), nullptr);
  // The texture menu offers the tile textures.
  const NSMenuRef menu = controller->textureIdentifierPopupButton()->menu();
  const NSMenuRef expected = QVFilterIKFilterUIViewController::menuForTexturesWithTags({"tile"});
  ASSERT_EQ(menu->numberOfItems(), expected->numberOfItems());
  for (std::int64_t i = 0; i < menu->numberOfItems(); ++i)
    EXPECT_EQ(menu->itemAtIndex(i)->title(), expected->itemAtIndex(i)->title());
}

TEST_F(Views, TextureBorderBindsItsPickerAndCheckBox) {
  auto controller = QVFilterTextureBorderIKFilterUIViewController::initWithTextureTags({"border"});
  ASSERT_NE(controller, nullptr);
  EXPECT_EQ(controller->nibName(), "TextureBorderView");
  auto filter = made<QVFilterTextureBorder>();
  controller->setRepresentedObject(filter);
  controller->view();
  NSPopUpButton* textures = controller->textureIdentifierPopupButton();
  std::int64_t random = -1;
  for (std::int64_t i = 0; i < textures->menu()->numberOfItems() && random < 0; ++i)
    if (textures->menu()->itemAtIndex(i)->title().ends_with("(Random)")) random = i;
  ASSERT_GE(random, 0);
  ASSERT_TRUE(textures->userSelectItemAtIndex(random));
  const Value tagKey = textures->menu()->itemAtIndex(random)->representedObject();
  EXPECT_TRUE(tagKey.string()->starts_with("x-qvfilter-tag:"));
  EXPECT_EQ(filter->valueForKey("inputTextureName"), tagKey);
  controller->textureIdentifierMatchInputImageOrientationButton()->userSetState(1);
  EXPECT_TRUE(filter->valueForKey("inputTextureShouldMatchInputImageOrientation").boolValue());
}

// ---- Preconditions ----

TEST_F(Views, BlurPrecondition) {
  const std::string cls = "QVFilterBlurIKFilterUIViewController";
  QVFilterBlurIKFilterUIViewController a("BlurView", plugin()), b("BlurView", plugin());
  expectPrecondition(a, nullptr, kindCondition("QVFilterBlur"), cls, 28);
  expectPrecondition(b, made<QVFilterBlurComposite>(), kindCondition("QVFilterBlur"), cls, 28);
}

TEST_F(Views, CompositePrecondition) {
  const std::string cls = "QVFilterCompositeIKFilterUIViewController";
  QVFilterCompositeIKFilterUIViewController a("NoiseCompositeView", plugin()), b("NoiseCompositeView", plugin());
  expectPrecondition(a, nullptr, kCompositeCondition, cls, 32);
  expectPrecondition(b, made<QVFilterBlur>(), kCompositeCondition, cls, 32);
}

TEST_F(Views, CompositeSubclassPreconditions) {
  struct Case {
    std::function<std::shared_ptr<QVFilterIKFilterUIViewController>()> make;
    std::string controllerClass, filterClass;
    int line;
    CIFilterRef wrong;
  };
  const std::vector<Case> cases = {
      {[] { return std::make_shared<QVFilterColorCompositeIKFilterUIViewController>("ColorCompositeView", plugin()); },
       "QVFilterColorCompositeIKFilterUIViewController", "QVFilterColorComposite", 27, made<QVFilterNoiseComposite>()},
      {[] { return std::make_shared<QVFilterBlurCompositeIKFilterUIViewController>("BlurCompositeView", plugin()); },
       "QVFilterBlurCompositeIKFilterUIViewController", "QVFilterBlurComposite", 27, made<QVFilterBlur>()},
      {[] { return std::make_shared<QVFilterNoiseCompositeIKFilterUIViewController>("NoiseCompositeView", plugin()); },
       "QVFilterNoiseCompositeIKFilterUIViewController", "QVFilterNoiseComposite", 19, made<QVFilterColorComposite>()},
      {[] {
         return std::make_shared<QVFilterGradientCompositeIKFilterUIViewController>("GradientCompositeView", plugin());
       },
       "QVFilterGradientCompositeIKFilterUIViewController", "QVFilterGradientComposite", 27, made<QVFilterBorder>()},
      {[] {
         return std::make_shared<QVFilterOffsetCompositeIKFilterUIViewController>("OffsetCompositeView", plugin());
       },
       "QVFilterOffsetCompositeIKFilterUIViewController", "QVFilterOffsetComposite", 25,
       made<QVFilterScaleComposite>()},
      {[] { return std::make_shared<QVFilterScaleCompositeIKFilterUIViewController>("ScaleCompositeView", plugin()); },
       "QVFilterScaleCompositeIKFilterUIViewController", "QVFilterScaleComposite", 25, made<QVFilterOffsetComposite>()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.controllerClass);
    expectPrecondition(*c.make(), nullptr, kindCondition(c.filterClass), c.controllerClass, c.line);
    expectPrecondition(*c.make(), c.wrong, kindCondition(c.filterClass), c.controllerClass, c.line);
  }
}

TEST_F(Views, TexturePrecondition) {
  auto a = QVFilterTextureIKFilterUIViewController::initWithTextureTags({"composite"});
  expectPrecondition(*a, nullptr, kindCondition("CIFilter"), "QVFilterTextureIKFilterUIViewController", 50);
  // Any filter passes its own check; one outside the composite family then fails the
  // composite controller's.
  auto b = QVFilterTextureIKFilterUIViewController::initWithTextureTags({"composite"});
  expectPrecondition(*b, made<QVFilterBlur>(), kCompositeCondition, "QVFilterCompositeIKFilterUIViewController", 32);
}

TEST_F(Views, TextureBorderHasNoPrecondition) {
  auto controller = QVFilterTextureBorderIKFilterUIViewController::initWithTextureTags({"border"});
  controller->setRepresentedObject(made<QVFilterBlur>());
  // No assertion; the blur has no texture keys to bind, which the binding reports.
  try {
    controller->view();
    ADD_FAILURE() << "bound a blur's missing texture name";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), "NSUnknownKeyException");
    EXPECT_EQ(e.reason().find("Invalid parameter"), std::string::npos);
  }
}

TEST_F(Views, AHandlerThatDoesNotRaiseStopsTheLoad) {
  struct Recording : NSAssertionHandler {
    std::vector<std::string> conditions;
    void handleFailureInMethod(const std::string&, const std::string&, const std::string&, int,
                               const std::string& condition) override {
      conditions.push_back(condition);
    }
  };
  auto handler = std::make_shared<Recording>();
  NSAssertionHandler::setCurrentHandler(handler);
  QVFilterBlurIKFilterUIViewController controller("BlurView", plugin());
  EXPECT_EQ(controller.view(), nullptr);
  NSAssertionHandler::setCurrentHandler(nullptr);
  EXPECT_EQ(handler->conditions, std::vector<std::string>{kindCondition("QVFilterBlur")});
}

// ---- Transformer ----

TEST_F(Views, ColorWellTransformer) {
  QVFilterColorWellValueTransformer t;
  EXPECT_EQ(t.transformedValueClass(), "CIColor");
  EXPECT_TRUE(t.allowsReverseTransformation());
  EXPECT_TRUE(t.transformedValue(Value()).isNil());
  EXPECT_TRUE(t.reverseTransformedValue(Value()).isNil());
  const Value forward = t.transformedValue(CIColor::colorWithRed(0.1, 0.2, 0.3, 0.4));
  const auto ns = NSColor::fromValue(forward);
  ASSERT_NE(ns, nullptr);
  EXPECT_EQ(forward.className(), "NSColor");
  EXPECT_DOUBLE_EQ(ns->greenComponent(), 0.2);
  const auto back = CIColor::fromValue(t.reverseTransformedValue(forward));
  ASSERT_NE(back, nullptr);
  EXPECT_TRUE(back->isEqual(*CIColor::colorWithRed(0.1, 0.2, 0.3, 0.4)));
  // Registered by class name: the registry makes it on first use.
  EXPECT_EQ(QVFilterColorWellValueTransformer::className(), "QVFilterColorWellValueTransformer");
  const auto registered = NSValueTransformer::valueTransformerForName("QVFilterColorWellValueTransformer");
  ASSERT_NE(registered, nullptr);
  EXPECT_EQ(registered->transformedValueClass(), "CIColor");
}

// ---- The shipped views ----

TEST_F(Views, SlidersFollowTheFiltersSliderAttributes) {
  for (const char* name : {"QVFilterBlur", "QVFilterColorComposite", "QVFilterBlurComposite", "QVFilterNoiseComposite",
                           "QVFilterTextureComposite", "QVFilterTextureTile", "QVFilterGradientComposite",
                           "QVFilterTextureBorder", "QVFilterOffsetComposite", "QVFilterScaleComposite"}) {
    SCOPED_TRACE(name);
    const CIFilterRef filter = qvtest::makeFilter(name);
    ASSERT_NE(filter, nullptr);
    const auto view = filter->provideViewForUIConfiguration({}, {});
    ASSERT_NE(view, nullptr);
    const Dictionary attributes = filter->attributes();
    int sliders = 0;
    std::function<void(const NSViewRef&)> walk = [&](const NSViewRef& v) {
      if (auto* slider = dynamic_cast<NSSlider*>(v.get())) {
        const NSBindingInfo* info = slider->infoForBinding(NSValueBinding);
        ASSERT_NE(info, nullptr) << slider->identifier();
        const std::string key = info->observedKeyPath.substr(std::string("selection.").size());
        const Value attrs = attributes.at(key);
        EXPECT_EQ(slider->minValue(), attrs[kCIAttributeSliderMin].doubleValue()) << key;
        EXPECT_EQ(slider->maxValue(), attrs[kCIAttributeSliderMax].doubleValue()) << key;
        // The filter's default shows on the slider.
        EXPECT_EQ(slider->doubleValue(), attrs[kCIAttributeDefault].doubleValue()) << key;
        ++sliders;
      }
      for (const auto& sub : v->subviews()) walk(sub);
    };
    walk(view);
    EXPECT_EQ(sliders > 0, std::string(name) != "QVFilterTextureBorder");  // the border has none
  }
}
