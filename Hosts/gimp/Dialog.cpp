#include "Dialog.h"

#include <libgimp/gimp.h>
#include <libgimp/gimpui.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "AppKit/NSColor.h"
#include "AppKit/NSControl.h"
#include "AppKit/NSMenu.h"
#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIContext.h"
#include "Foundation/NSException.h"
#include "Pixels.h"
#include "ValueParsing.h"
#include "ViewTree.h"

namespace qvgimp {
namespace {

constexpr int kPreviewSize = 320;
constexpr int kResetResponse = 1;
// The row of an image input's layer choice that stands for no layer, and what it shows.
constexpr gint kNoLayer = -1;
constexpr const char* kLayerChoiceLabel = "Layer\u2026";

// One drawn control and the view it stands for.
struct Control {
  NSView* view = nullptr;
  GtkWidget* widget = nullptr;
};

struct DialogState {
  const FilterProcedure* procedure = nullptr;
  qv::FilterView filterView;
  CIImage input;        // the drawable scaled down to the preview's size
  double scale = 1.0;   // from the drawable's size to the input's
  std::int32_t drawable = -1;
  std::vector<Control> controls;
  GtkWidget* preview = nullptr;
  GtkWidget* status = nullptr;
  guint pendingPreview = 0;
  bool updating = false;  // widgets being set from the views: their signals are not edits
};

void schedulePreview(DialogState& state);

// Sets every widget from its view (after an edit, bindings may have changed other controls).
void refreshWidgets(DialogState& state) {
  state.updating = true;
  for (const Control& c : state.controls) {
    if (auto* control = dynamic_cast<NSControl*>(c.view)) gtk_widget_set_sensitive(c.widget, control->isEnabled());
    if (auto* field = dynamic_cast<NSTextField*>(c.view)) {
      if (GTK_IS_ENTRY(c.widget)) {
        if (!gtk_widget_has_focus(c.widget)) gtk_entry_set_text(GTK_ENTRY(c.widget), field->stringValue().c_str());
      } else {
        gtk_label_set_text(GTK_LABEL(c.widget), field->stringValue().c_str());
      }
    } else if (auto* slider = dynamic_cast<NSSlider*>(c.view)) {
      gtk_range_set_value(GTK_RANGE(c.widget), slider->doubleValue());
    } else if (auto* button = dynamic_cast<NSButton*>(c.view)) {
      gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(c.widget), button->state() != 0);
    } else if (auto* well = dynamic_cast<NSColorWell*>(c.view)) {
      const NSColorRef color = well->color();
      GimpRGB rgb;
      gimp_rgba_set(&rgb, color ? color->redComponent() : 0, color ? color->greenComponent() : 0,
                    color ? color->blueComponent() : 0, color ? color->alphaComponent() : 1);
      gimp_color_button_set_color(GIMP_COLOR_BUTTON(c.widget), &rgb);
    } else if (auto* popup = dynamic_cast<NSPopUpButton*>(c.view)) {
      gtk_combo_box_set_active(GTK_COMBO_BOX(c.widget), static_cast<gint>(popup->indexOfSelectedItem()));
    } else if (auto* well = dynamic_cast<NSImageView*>(c.view); well && !well->image()) {
      // No image (Reset): neither a file nor a layer is chosen.
      if (GTK_IS_FILE_CHOOSER(c.widget)) gtk_file_chooser_unselect_all(GTK_FILE_CHOOSER(c.widget));
      if (GIMP_IS_INT_COMBO_BOX(c.widget)) gimp_int_combo_box_set_active(GIMP_INT_COMBO_BOX(c.widget), kNoLayer);
    }
  }
  state.updating = false;
}

void edited(DialogState& state) {
  refreshWidgets(state);
  schedulePreview(state);
}

template <class F>
void guarded(DialogState& state, F&& edit) {
  if (state.updating) return;
  try {
    edit();
    gtk_label_set_text(GTK_LABEL(state.status), "");
  } catch (const NSException& e) {
    gtk_label_set_text(GTK_LABEL(state.status), e.reason().c_str());
  } catch (const std::exception& e) {
    gtk_label_set_text(GTK_LABEL(state.status), e.what());
  }
  edited(state);
}

struct Binding {
  DialogState* state;
  NSView* view;
};

Binding* bindingFor(DialogState& state, NSView* view) { return new Binding{&state, view}; }
void freeBinding(gpointer data, GClosure*) { delete static_cast<Binding*>(data); }

void onEntry(GtkWidget* widget, gpointer data) {
  auto* b = static_cast<Binding*>(data);
  const std::string text = gtk_entry_get_text(GTK_ENTRY(widget));
  guarded(*b->state, [&] { static_cast<NSTextField*>(b->view)->userSetStringValue(text); });
}
gboolean onEntryFocusOut(GtkWidget* widget, GdkEvent*, gpointer data) {
  onEntry(widget, data);
  return FALSE;
}
void onSlider(GtkRange* range, gpointer data) {
  auto* b = static_cast<Binding*>(data);
  const double v = gtk_range_get_value(range);
  guarded(*b->state, [&] { static_cast<NSSlider*>(b->view)->userSetDoubleValue(v); });
}
void onToggle(GtkToggleButton* button, gpointer data) {
  auto* b = static_cast<Binding*>(data);
  const bool on = gtk_toggle_button_get_active(button);
  guarded(*b->state, [&] { static_cast<NSButton*>(b->view)->userSetState(on ? 1 : 0); });
}
void onColor(GimpColorButton* button, gpointer data) {
  auto* b = static_cast<Binding*>(data);
  GimpRGB rgb;
  gimp_color_button_get_color(button, &rgb);
  guarded(*b->state, [&] {
    static_cast<NSColorWell*>(b->view)->userSetColor(NSColor::colorWithSRGBRed(rgb.r, rgb.g, rgb.b, rgb.a));
  });
}
void onCombo(GtkComboBox* combo, gpointer data) {
  auto* b = static_cast<Binding*>(data);
  const gint index = gtk_combo_box_get_active(combo);
  guarded(*b->state, [&] {
    if (index >= 0) static_cast<NSPopUpButton*>(b->view)->userSelectItemAtIndex(index);
  });
}
// An image input from a file: read as the command line reads it, set through the view's binding.
void onImageFile(GtkFileChooserButton* button, gpointer data) {
  auto* b = static_cast<Binding*>(data);
  gchar* path = gtk_file_chooser_get_filename(GTK_FILE_CHOOSER(button));
  const std::string file = path ? path : "";
  g_free(path);
  guarded(*b->state, [&] {
    static_cast<NSImageView*>(b->view)->userSetImage(file.empty() ? CIImage() : qv::imageFromFile(file));
  });
}
// An image input from a layer of an open image: its pixels at their own precision.
void onImageLayer(GtkComboBox* combo, gpointer data) {
  auto* b = static_cast<Binding*>(data);
  gint layer = -1;
  if (!gimp_int_combo_box_get_active(GIMP_INT_COMBO_BOX(combo), &layer) || layer < 0) return;
  guarded(*b->state, [&] { static_cast<NSImageView*>(b->view)->userSetImage(drawableImage(layer)); });
}

// The control of an image input: a file chooser button and, beside it, a choice of the layers
// of the open images; either sets the input.
GtkWidget* imageInputFor(DialogState& state, NSView* view, int width, int height) {
  GtkWidget* box = height >= 56 ? gtk_vbox_new(TRUE, 4) : gtk_hbox_new(TRUE, 4);
  GtkWidget* file = gtk_file_chooser_button_new("Choose an image file", GTK_FILE_CHOOSER_ACTION_OPEN);
  GtkFileFilter* images = gtk_file_filter_new();
  gtk_file_filter_set_name(images, "Images (PNG, JPEG, WebP)");
  for (const char* pattern : {"*.png", "*.PNG", "*.jpg", "*.jpeg", "*.JPG", "*.JPEG", "*.webp", "*.WEBP"})
    gtk_file_filter_add_pattern(images, pattern);
  gtk_file_chooser_add_filter(GTK_FILE_CHOOSER(file), images);
  // Start in the folder of the picture being edited, where its companions usually are.
  if (gchar* picture = gimp_image_get_filename(gimp_item_get_image(state.drawable))) {
    gchar* folder = g_path_get_dirname(picture);
    gtk_file_chooser_set_current_folder(GTK_FILE_CHOOSER(file), folder);
    g_free(folder);
    g_free(picture);
  }
  gtk_widget_set_tooltip_text(file, "An image file for this input");
  g_signal_connect_data(file, "file-set", G_CALLBACK(onImageFile), bindingFor(state, view), freeBinding,
                        GConnectFlags(0));
  GtkWidget* layers = gimp_layer_combo_box_new(nullptr, nullptr);
  // Its first row says what the choice is for (short enough for the half of the row it has),
  // and stands for no layer chosen.
  gimp_int_combo_box_prepend(GIMP_INT_COMBO_BOX(layers), GIMP_INT_STORE_VALUE, kNoLayer, GIMP_INT_STORE_LABEL,
                             kLayerChoiceLabel, -1);
  gimp_int_combo_box_set_active(GIMP_INT_COMBO_BOX(layers), kNoLayer);
  gtk_widget_set_tooltip_text(layers, "Or a layer of an open image for this input");
  atk_object_set_name(gtk_widget_get_accessible(layers), "Layer for this input");
  g_signal_connect_data(layers, "changed", G_CALLBACK(onImageLayer), bindingFor(state, view), freeBinding,
                        GConnectFlags(0));
  gtk_box_pack_start(GTK_BOX(box), file, TRUE, TRUE, 0);
  gtk_box_pack_start(GTK_BOX(box), layers, TRUE, TRUE, 0);
  gtk_widget_set_size_request(box, std::max(width, 1), -1);
  state.controls.push_back(Control{view, file});
  state.controls.push_back(Control{view, layers});
  return box;
}

gboolean isSeparatorRow(GtkTreeModel* model, GtkTreeIter* iter, gpointer) {
  gboolean separator = FALSE;
  gtk_tree_model_get(model, iter, 2, &separator, -1);
  return separator;
}

// A pop-up with its menu: disabled items (headings) greyed, indented items indented.
GtkWidget* comboFor(NSPopUpButton& popup) {
  GtkListStore* store = gtk_list_store_new(3, G_TYPE_STRING, G_TYPE_BOOLEAN, G_TYPE_BOOLEAN);
  if (const NSMenuRef& menu = popup.menu()) {
    for (const NSMenuItemRef& item : menu->itemArray()) {
      GtkTreeIter iter;
      gtk_list_store_append(store, &iter);
      const std::string title =
          std::string(static_cast<std::size_t>(std::max<std::int64_t>(item->indentationLevel(), 0)) * 4, ' ') +
          item->title();
      gtk_list_store_set(store, &iter, 0, title.c_str(), 1, (gboolean)item->isEnabled(), 2,
                         (gboolean)item->isSeparatorItem(), -1);
    }
  }
  GtkWidget* combo = gtk_combo_box_new_with_model(GTK_TREE_MODEL(store));
  g_object_unref(store);
  GtkCellRenderer* cell = gtk_cell_renderer_text_new();
  gtk_cell_layout_pack_start(GTK_CELL_LAYOUT(combo), cell, TRUE);
  gtk_cell_layout_set_attributes(GTK_CELL_LAYOUT(combo), cell, "text", 0, "sensitive", 1, nullptr);
  gtk_combo_box_set_row_separator_func(GTK_COMBO_BOX(combo), isSeparatorRow, nullptr, nullptr);
  return combo;
}

// The rows of the filter's own input image (the drawable, never chosen in the dialog): the
// vertical positions of the views bound to it.
std::vector<double> drawableRows(const NSView& view) {
  std::vector<double> rows;
  for (const NSViewRef& sub : view.subviews())
    for (const std::string& binding : sub->boundBindings())
      if (sub->infoForBinding(binding)->observedKeyPath == std::string("selection.") + kCIInputImageKey)
        rows.push_back(sub->frame().origin.y);
  return rows;
}

// Draws `view`'s subviews into `fixed` (GTK's origin is top-left, the views' bottom-left),
// leaving out the row of the drawable's own input.
void addSubviews(DialogState& state, GtkWidget* fixed, const NSView& view) {
  const double height = view.frame().size.height;
  const std::vector<double> skipped = drawableRows(view);
  for (const NSViewRef& sub : view.subviews()) {
    const CGRect f = sub->frame();
    if (std::find(skipped.begin(), skipped.end(), f.origin.y) != skipped.end()) continue;
    const int x = static_cast<int>(std::lround(f.origin.x));
    const int y = static_cast<int>(std::lround(height - f.origin.y - f.size.height));
    const int w = static_cast<int>(std::lround(f.size.width)), h = static_cast<int>(std::lround(f.size.height));
    GtkWidget* widget = nullptr;
    Binding* b = bindingFor(state, sub.get());
    if (auto* field = dynamic_cast<NSTextField*>(sub.get())) {
      if (field->isEditable()) {
        widget = gtk_entry_new();
        g_signal_connect_data(widget, "activate", G_CALLBACK(onEntry), b, freeBinding, GConnectFlags(0));
        g_signal_connect(widget, "focus-out-event", G_CALLBACK(onEntryFocusOut), b);
        b = nullptr;
      } else {
        widget = gtk_label_new(field->stringValue().c_str());
        gtk_misc_set_alignment(GTK_MISC(widget), 0.0f, 0.5f);
      }
    } else if (auto* slider = dynamic_cast<NSSlider*>(sub.get())) {
      const double lo = slider->minValue(), hi = std::max(slider->maxValue(), slider->minValue() + 1e-6);
      widget = gtk_hscale_new_with_range(lo, hi, (hi - lo) / 200.0);
      gtk_scale_set_draw_value(GTK_SCALE(widget), FALSE);
      g_signal_connect_data(widget, "value-changed", G_CALLBACK(onSlider), b, freeBinding, GConnectFlags(0));
      b = nullptr;
    } else if (auto* button = dynamic_cast<NSButton*>(sub.get())) {
      widget = gtk_check_button_new_with_label(button->title().c_str());
      g_signal_connect_data(widget, "toggled", G_CALLBACK(onToggle), b, freeBinding, GConnectFlags(0));
      b = nullptr;
    } else if (dynamic_cast<NSColorWell*>(sub.get())) {
      GimpRGB black;
      gimp_rgba_set(&black, 0, 0, 0, 1);
      widget = gimp_color_button_new("Colour", std::max(w - 8, 16), std::max(h - 8, 12), &black,
                                     GIMP_COLOR_AREA_SMALL_CHECKS);
      g_signal_connect_data(widget, "color-changed", G_CALLBACK(onColor), b, freeBinding, GConnectFlags(0));
      b = nullptr;
    } else if (auto* popup = dynamic_cast<NSPopUpButton*>(sub.get())) {
      widget = comboFor(*popup);
      g_signal_connect_data(widget, "changed", G_CALLBACK(onCombo), b, freeBinding, GConnectFlags(0));
      b = nullptr;
    } else if (dynamic_cast<NSImageView*>(sub.get())) {
      GtkWidget* control = imageInputFor(state, sub.get(), w, h);
      gtk_fixed_put(GTK_FIXED(fixed), control, x, y);
    } else if (!sub->subviews().empty()) {
      widget = gtk_fixed_new();
      addSubviews(state, widget, *sub);
    }
    delete b;
    if (!widget) continue;
    // Pop-ups take GTK's own height, a few pixels more than the views give them.
    gtk_widget_set_size_request(widget, std::max(w, 1), GTK_IS_COMBO_BOX(widget) ? -1 : std::max(h, 1));
    gtk_fixed_put(GTK_FIXED(fixed), widget, x, y);
    if (widget && !GTK_IS_FIXED(widget)) state.controls.push_back(Control{sub.get(), widget});
  }
}

// The filter's output over the drawable's scaled-down copy (its distances scaled alike), fitted
// to the preview, on a checkerboard.
void renderPreview(DialogState& state) {
  CIImage output;
  try {
    const CIFilterRef filter = previewFilter(*state.filterView.filter, *state.procedure, state.scale);
    filter->setValue(Value(state.input), kCIInputImageKey);
    filter->setCalculatedValues();
    output = filter->outputImage();
  } catch (const NSException& e) {
    gtk_label_set_text(GTK_LABEL(state.status), e.reason().c_str());
  } catch (const std::exception& e) {
    gtk_label_set_text(GTK_LABEL(state.status), e.what());
  }
  CGRect extent = output ? output.extent() : CGRectNull;
  if (CGRectIsInfinite(extent)) extent = state.input.extent();
  extent = CGRectIntegral(extent);
  if (!output || CGRectIsNull(extent) || CGRectIsEmpty(extent)) {
    gtk_image_clear(GTK_IMAGE(state.preview));
    return;
  }
  const double scale = std::min(1.0, kPreviewSize / std::max(extent.size.width, extent.size.height));
  const int w = std::max(1, static_cast<int>(std::lround(extent.size.width * scale)));
  const int h = std::max(1, static_cast<int>(std::lround(extent.size.height * scale)));
  const CIImage scaled =
      output.imageByApplyingTransform(CGAffineTransformMakeTranslation(-extent.origin.x, -extent.origin.y))
          .imageByApplyingTransform(CGAffineTransformMakeScale(scale, scale));
  std::vector<std::uint8_t> rgba(static_cast<std::size_t>(w) * static_cast<std::size_t>(h) * 4u);
  try {
    CIContext().render(scaled, rgba.data(), w * 4, CGRectMake(0, 0, w, h), CIRenderFormat::RGBA8);
  } catch (const std::exception& e) {
    gtk_label_set_text(GTK_LABEL(state.status), e.what());
    return;
  }
  // Transparent parts over a checkerboard, as GIMP shows them.
  GdkPixbuf* pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, w, h);
  guchar* pixels = gdk_pixbuf_get_pixels(pixbuf);
  const int stride = gdk_pixbuf_get_rowstride(pixbuf);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const std::uint8_t* s = &rgba[(static_cast<std::size_t>(y) * w + x) * 4];
      const int check = ((x / 8 + y / 8) % 2) ? 153 : 102;
      for (int c = 0; c < 3; ++c)
        pixels[y * stride + x * 3 + c] = static_cast<guchar>((s[c] * s[3] + check * (255 - s[3]) + 127) / 255);
    }
  gtk_image_set_from_pixbuf(GTK_IMAGE(state.preview), pixbuf);
  g_object_unref(pixbuf);
}

gboolean previewTimeout(gpointer data) {
  auto* state = static_cast<DialogState*>(data);
  state->pendingPreview = 0;
  renderPreview(*state);
  return FALSE;
}

void schedulePreview(DialogState& state) {
  if (state.pendingPreview) g_source_remove(state.pendingPreview);
  state.pendingPreview = g_timeout_add(120, previewTimeout, &state);
}

}  // namespace

bool runDialog(const FilterProcedure& procedure, const CIFilterRef& filter, std::int32_t drawable) {
  // The display of the environment GIMP started the plug-in in, else the one GIMP names (which
  // gimp-console gives as the default even without one). GTK is set up here, where a missing
  // display is an error to report rather than the exit gtk_init would make; gimp_ui_init then
  // finds it set up.
  std::string displayArg = "--display=";
  const gchar* environmentDisplay = g_getenv("DISPLAY");
  const gchar* gimpDisplay = gimp_display_name();
  displayArg += environmentDisplay && *environmentDisplay ? environmentDisplay : (gimpDisplay ? gimpDisplay : "");
  char name[] = "qvfilter-gimp";
  char* args[] = {name, displayArg.data(), nullptr};
  char** argv = args;
  int argc = 2;
  if (!gtk_init_check(&argc, &argv))
    throw DialogError("no display to show the dialog on (" + displayArg.substr(10) +
                      "); call the procedure with RUN-NONINTERACTIVE");
  gimp_ui_init("qvfilter-gimp", TRUE);
  DialogState state;
  state.procedure = &procedure;
  state.drawable = drawable;
  state.filterView = qv::filterViewFor(filter);
  state.input = drawablePreviewImage(drawable, kPreviewSize, state.scale);

  const std::string title = "QVFilter " + procedure.displayName;
  GtkWidget* dialog = gimp_dialog_new(title.c_str(), "qvfilter-gimp", nullptr, GtkDialogFlags(0),
                                      gimp_standard_help_func, procedure.procedure.c_str(), "_Reset", kResetResponse,
                                      "_Cancel", GTK_RESPONSE_CANCEL, "_OK", GTK_RESPONSE_OK, nullptr);
  gimp_window_set_transient(GTK_WINDOW(dialog));
  GtkWidget* box = gtk_hbox_new(FALSE, 12);
  gtk_container_set_border_width(GTK_CONTAINER(box), 12);
  gtk_box_pack_start(GTK_BOX(gtk_dialog_get_content_area(GTK_DIALOG(dialog))), box, TRUE, TRUE, 0);

  GtkWidget* frame = gtk_frame_new(nullptr);
  gtk_frame_set_shadow_type(GTK_FRAME(frame), GTK_SHADOW_IN);
  state.preview = gtk_image_new();
  gtk_widget_set_size_request(state.preview, kPreviewSize, kPreviewSize);
  gtk_container_add(GTK_CONTAINER(frame), state.preview);
  gtk_box_pack_start(GTK_BOX(box), frame, FALSE, FALSE, 0);

  GtkWidget* right = gtk_vbox_new(FALSE, 6);
  GtkWidget* fixed = gtk_fixed_new();
  const CGRect frameRect = state.filterView.view->frame();
  gtk_widget_set_size_request(fixed, static_cast<int>(frameRect.size.width), static_cast<int>(frameRect.size.height));
  addSubviews(state, fixed, *state.filterView.view);
  gtk_box_pack_start(GTK_BOX(right), fixed, FALSE, FALSE, 0);
  state.status = gtk_label_new("");
  gtk_misc_set_alignment(GTK_MISC(state.status), 0.0f, 0.5f);
  gtk_box_pack_start(GTK_BOX(right), state.status, FALSE, FALSE, 0);
  gtk_box_pack_start(GTK_BOX(box), right, TRUE, TRUE, 0);

  refreshWidgets(state);
  renderPreview(state);
  gtk_widget_show_all(dialog);

  bool ok = false;
  for (;;) {
    const gint response = gimp_dialog_run(GIMP_DIALOG(dialog));
    if (response == kResetResponse) {
      filter->setDefaults();
      edited(state);
      continue;
    }
    ok = response == GTK_RESPONSE_OK;
    break;
  }
  if (state.pendingPreview) g_source_remove(state.pendingPreview);
  gtk_widget_destroy(dialog);
  return ok;
}

}  // namespace qvgimp
