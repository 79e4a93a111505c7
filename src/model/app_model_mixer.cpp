// The model's side of per-app volume: the mixer is its own object; the model
// owns it, starts it once it is given the server's streams, and passes its
// changes on as its own.
#include <unistd.h>

#include "model/app_model.h"

namespace vt::model {

void AppModel::enableMixer(mixer::AppStreams& streams,
                           std::unique_ptr<mixer::AppIdentity> identity) {
    if (mixer_) return;
    if (!identity) identity = std::make_unique<mixer::AppIdentity>();
    mixer_ = std::make_unique<mixer::AppMixer>(streams, main_, settings_, std::move(identity),
                                               int(::getpid()));
    mixer_->onChanged = [this] { stateChanged(); };
    startMixer();
}

}  // namespace vt::model
