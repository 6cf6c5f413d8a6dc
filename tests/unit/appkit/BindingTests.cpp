// Bindings of each control kind through an IKFilterUIView's object controller, in both
// directions, and the errors of binding what cannot be bound.
#include <gtest/gtest.h>

#include "AppKit/NSControl.h"
#include "AppKitTestSupport.h"
#include "Foundation/NSException.h"

using namespace appkittest;

namespace {

struct Bound {
  std::shared_ptr<TestFilter> filter = makeTestFilter();
  std::shared_ptr<IKFilterUIView> view = std::make_shared<IKFilterUIView>(CGRectMake(0, 0, 100, 100), filter);
  const std::shared_ptr<NSObjectController>& controller() { return view->objectController(); }
};

template <class T>
std::shared_ptr<T> addControl(Bound& b) {
  auto control = std::make_shared<T>(CGRectMake(0, 0, 50, 20));
  b.view->addSubview(control);
  return control;
}

std::string reasonOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const NSException& e) {
    return e.name() + ": " + e.reason();
  }
  return "no exception";
}

}  // namespace

TEST(Bindings, ObjectControllerSelectionIsTheFilter) {
  Bound b;
  EXPECT_EQ(b.controller()->content(), b.filter);
  b.filter->setValue(3.5, "inputAmount");
  EXPECT_EQ(b.controller()->valueForKeyPath("selection.inputAmount"), Value(3.5));
  b.controller()->setValueForKeyPath(Value(7), "selection.inputAmount");
  EXPECT_EQ(b.filter->valueForKey("inputAmount"), Value(7));
}

TEST(Bindings, SliderRoundTrip) {
  Bound b;
  auto slider = addControl<NSSlider>(b);
  slider->setMaxValue(10);
  b.filter->setValue(2.5, "inputAmount");
  slider->bind(NSValueBinding, b.controller(), "selection.inputAmount", {});
  EXPECT_EQ(slider->doubleValue(), 2.5);  // shown at once
  slider->userSetDoubleValue(4.0);        // control -> filter
  EXPECT_EQ(b.filter->valueForKey("inputAmount"), Value(4.0));
  b.filter->setValue(6.0, "inputAmount");  // filter -> control
  EXPECT_EQ(slider->doubleValue(), 6.0);
  b.filter->setInputAmount(Value(1.5));  // typed setters are observed too
  EXPECT_EQ(slider->doubleValue(), 1.5);
  b.filter->setValue(50.0, "inputAmount");  // the slider keeps within its range
  EXPECT_EQ(slider->doubleValue(), 10.0);
}

TEST(Bindings, TextFieldWithNumberFormatterRoundTrip) {
  Bound b;
  auto field = addControl<NSTextField>(b);
  field->setFormatter(NSNumberFormatter{0, 2});
  b.filter->setValue(0.127, "inputAmount");
  field->bind(NSValueBinding, b.controller(), "selection.inputAmount", {});
  EXPECT_EQ(field->stringValue(), "0.13");
  ASSERT_TRUE(field->userSetStringValue("0.75"));
  EXPECT_EQ(b.filter->valueForKey("inputAmount"), Value(0.75));
  EXPECT_FALSE(field->userSetStringValue("much"));  // not a number: refused, nothing written
  EXPECT_EQ(b.filter->valueForKey("inputAmount"), Value(0.75));
  b.filter->setValue(3, "inputAmount");
  EXPECT_EQ(field->stringValue(), "3");
  b.filter->setValue(Value(), "inputAmount");
  EXPECT_EQ(field->stringValue(), "");
}

TEST(Bindings, PlainTextFieldWritesText) {
  Bound b;
  auto field = addControl<NSTextField>(b);
  field->bind(NSValueBinding, b.controller(), "selection.inputName", {});
  ASSERT_TRUE(field->userSetStringValue("hello"));
  EXPECT_EQ(b.filter->valueForKey("inputName"), Value("hello"));
  auto label = NSTextField::labelWithString("Label", CGRectZero);
  EXPECT_FALSE(label->userSetStringValue("edited"));
  EXPECT_EQ(label->stringValue(), "Label");
}

TEST(Bindings, CheckBoxRoundTrip) {
  Bound b;
  auto box = addControl<NSButton>(b);
  box->setButtonType(NSButton::ButtonType::Switch);
  box->bind(NSValueBinding, b.controller(), "selection.inputFlag", {});
  EXPECT_EQ(box->state(), 0);  // nil reads as off
  box->userSetState(1);
  EXPECT_EQ(b.filter->valueForKey("inputFlag"), Value::boolean(true));
  b.filter->setValue(Value::boolean(false), "inputFlag");
  EXPECT_EQ(box->state(), 0);
  b.filter->setValue(1, "inputFlag");
  EXPECT_EQ(box->state(), 1);
}

TEST(Bindings, ColorWellThroughTransformerRoundTrip) {
  Bound b;
  auto well = addControl<NSColorWell>(b);
  b.filter->setValue(CIColor::colorWithRed(0.2, 0.4, 0.6, 1), "inputColor");
  well->bind(NSValueBinding, b.controller(), "selection.inputColor",
             Dictionary{{NSValueTransformerNameBindingOption, kColorTransformer}});
  ASSERT_NE(well->color(), nullptr);
  EXPECT_DOUBLE_EQ(well->color()->greenComponent(), 0.4);
  well->userSetColor(NSColor::colorWithSRGBRed(1, 0, 0, 0.5));
  const auto stored = CIColor::fromValue(b.filter->valueForKey("inputColor"));
  ASSERT_NE(stored, nullptr) << b.filter->valueForKey("inputColor").description();
  EXPECT_EQ(stored->red(), 1);
  EXPECT_EQ(stored->alpha(), 0.5);
  b.filter->setValue(Value(), "inputColor");
  EXPECT_EQ(well->color(), nullptr);
}

TEST(Bindings, PopUpSelectedObjectRoundTrip) {
  Bound b;
  auto popup = addControl<NSPopUpButton>(b);
  auto menu = std::make_shared<NSMenu>();
  for (const char* name : {"A", "B", "C"})
    menu->addItemWithTitle(std::string("Item ") + name)->setRepresentedObject(name);
  menu->itemAtIndex(2)->setEnabled(false);
  popup->setMenu(menu);
  b.filter->setValue("B", "inputName");
  popup->bind(NSSelectedObjectBinding, b.controller(), "selection.inputName", {});
  EXPECT_EQ(popup->indexOfSelectedItem(), 1);
  ASSERT_TRUE(popup->userSelectItemAtIndex(0));
  EXPECT_EQ(b.filter->valueForKey("inputName"), Value("A"));
  EXPECT_FALSE(popup->userSelectItemAtIndex(2));  // disabled
  EXPECT_FALSE(popup->userSelectItemAtIndex(7));  // no such item
  EXPECT_EQ(b.filter->valueForKey("inputName"), Value("A"));
  b.filter->setValue("C", "inputName");
  EXPECT_EQ(popup->indexOfSelectedItem(), 2);
  // A value no item represents, nil included, selects nothing.
  b.filter->setValue("Z", "inputName");
  EXPECT_EQ(popup->indexOfSelectedItem(), -1);
  b.filter->setValue(Value(), "inputName");
  EXPECT_EQ(popup->indexOfSelectedItem(), -1);
}

TEST(Bindings, ImageWellRoundTrip) {
  Bound b;
  auto well = addControl<NSImageView>(b);
  well->bind(NSValueBinding, b.controller(), "selection.inputImage", {});
  EXPECT_FALSE(well->image());
  const CIImage red =
      CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0)).imageByCroppingToRect(CGRectMake(0, 0, 4, 4));
  well->userSetImage(red);
  EXPECT_EQ(CIImage::fromValue(b.filter->valueForKey("inputImage")).extent().size.width, 4);
  b.filter->setValue(Value(), "inputImage");
  EXPECT_FALSE(well->image());
}

TEST(Bindings, RebindingReplacesAndUnbindStops) {
  Bound b;
  auto slider = addControl<NSSlider>(b);
  slider->setMaxValue(100);
  slider->bind(NSValueBinding, b.controller(), "selection.inputAmount", {});
  slider->bind(NSValueBinding, b.controller(), "selection.inputAmount", {});
  EXPECT_EQ(slider->boundBindings(), std::vector<std::string>{NSValueBinding});
  int stores = 0;
  b.filter->addObserver([&](const std::string&) { ++stores; });
  slider->userSetDoubleValue(5);
  EXPECT_EQ(stores, 1);  // one binding, one write
  slider->unbind(NSValueBinding);
  EXPECT_EQ(slider->infoForBinding(NSValueBinding), nullptr);
  b.filter->setValue(9, "inputAmount");
  EXPECT_EQ(slider->doubleValue(), 5);
}

TEST(Bindings, InfoForBindingDescribesIt) {
  Bound b;
  auto well = addControl<NSColorWell>(b);
  const Dictionary options{{NSValueTransformerNameBindingOption, kColorTransformer}};
  well->bind(NSValueBinding, b.controller(), "selection.inputColor", options);
  const NSBindingInfo* info = well->infoForBinding(NSValueBinding);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->observedObject, b.controller());
  EXPECT_EQ(info->observedKeyPath, "selection.inputColor");
  EXPECT_EQ(info->options, options);
}

TEST(Bindings, ErrorsAreExceptionsWithReasons) {
  Bound b;
  auto slider = addControl<NSSlider>(b);
  EXPECT_EQ(reasonOf([&] { slider->bind(NSSelectedObjectBinding, b.controller(), "selection.inputAmount", {}); }),
            "NSInvalidArgumentException: NSSlider does not expose the binding \"selectedObject\"");
  EXPECT_EQ(reasonOf([&] {
              slider->bind(NSValueBinding, b.controller(), "selection.inputAmount",
                           Dictionary{{NSValueTransformerNameBindingOption, "NoSuchTransformer"}});
            }),
            "NSInvalidArgumentException: cannot find a value transformer named \"NoSuchTransformer\"");
  EXPECT_EQ(reasonOf([&] { slider->bind(NSValueBinding, b.controller(), "selection.inputMissing", {}); }),
            "NSUnknownKeyException: [<AppKitTestFilter> valueForUndefinedKey:]: this class is not key value "
            "coding-compliant for the key inputMissing.");
  EXPECT_NE(
      reasonOf([&] { slider->bind(NSValueBinding, b.controller(), "inputAmount", {}); }).find("selection.<input key>"),
      std::string::npos);
  EXPECT_NE(reasonOf([&] { slider->bind(NSValueBinding, b.controller(), "selection.a.b", {}); }), "no exception");
  // A failed bind leaves no binding behind.
  EXPECT_TRUE(slider->boundBindings().empty());
}

TEST(Bindings, ViewsOutliveNothingTheyObserve) {
  // Dropping the view (and its controls) removes every observer from the filter.
  auto filter = makeTestFilter();
  {
    auto view = std::make_shared<IKFilterUIView>(CGRectZero, filter);
    auto slider = std::make_shared<NSSlider>(CGRectZero);
    view->addSubview(slider);
    slider->bind(NSValueBinding, view->objectController(), "selection.inputAmount", {});
  }
  filter->setValue(1, "inputAmount");  // must not reach a destroyed control (ASan would tell)
  int told = 0;
  const auto token = filter->addObserver([&](const std::string&) { ++told; });
  filter->setValue(2, "inputAmount");
  EXPECT_EQ(told, 1);
  filter->removeObserver(token);
}
