// IKFilterUIView: the view that shows one filter's parameters. It holds the filter and an
// object controller whose content (and selection) is that filter, for the controls inside it
// to bind to.
#pragma once

#include <memory>

#include "AppKit/NSObjectController.h"
#include "AppKit/NSView.h"
#include "CoreImage/CIFilter.h"

class IKFilterUIView : public NSView {
 public:
  // initWithFrame:filter:
  IKFilterUIView(CGRect frame, CIFilterRef filter)
      : NSView(frame), filter_(filter), objectController_(std::make_shared<NSObjectController>(std::move(filter))) {}

  std::string className() const override { return "IKFilterUIView"; }
  const CIFilterRef& filter() const { return filter_; }
  const std::shared_ptr<NSObjectController>& objectController() const { return objectController_; }

 private:
  CIFilterRef filter_;
  std::shared_ptr<NSObjectController> objectController_;
};
