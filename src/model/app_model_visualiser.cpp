#include "model/app_model.h"

namespace vt::model {

void AppModel::setVisualiserHidden(bool hidden) {
    if (hidden == visualiserHidden_) return;
    visualiserHidden_ = hidden;
    settings_.setVisualiserHidden(hidden);
}

void AppModel::setVisualiserStyle(settings::VisualiserStyle style) {
    if (style == visualiserStyle_) return;
    visualiserStyle_ = style;
    settings_.setVisualiserStyle(style);
}

}  // namespace vt::model
