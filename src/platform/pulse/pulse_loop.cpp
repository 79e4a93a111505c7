#include "platform/pulse/pulse_loop.h"

namespace vt::platform::pulse {

std::shared_ptr<PulseLoop> PulseLoop::connect(const std::string& clientName) {
    std::shared_ptr<PulseLoop> self(new PulseLoop());
    self->loop_ = pa_threaded_mainloop_new();
    if (!self->loop_) return nullptr;
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Vellatone");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "vellatone");
    self->context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(self->loop_),
                                                  clientName.c_str(), props);
    pa_proplist_free(props);
    if (!self->context_) return nullptr;
    pa_context_set_state_callback(self->context_, &PulseLoop::onContextState, self.get());
    if (pa_threaded_mainloop_start(self->loop_) < 0) return nullptr;

    Lock lock(*self);
    // Never spawn a server of our own: no server means "not connected".
    if (pa_context_connect(self->context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return nullptr;
    for (;;) {
        pa_context_state_t st = pa_context_get_state(self->context_);
        if (st == PA_CONTEXT_READY) break;
        if (!PA_CONTEXT_IS_GOOD(st)) return nullptr;
        pa_threaded_mainloop_wait(self->loop_);
    }
    return self;
}

PulseLoop::~PulseLoop() {
    if (loop_) pa_threaded_mainloop_stop(loop_);
    if (context_) {
        pa_context_set_state_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        pa_context_unref(context_);
    }
    if (loop_) pa_threaded_mainloop_free(loop_);
}

void PulseLoop::onContextState(pa_context* c, void* self) {
    auto* me = static_cast<PulseLoop*>(self);
    const bool ready = pa_context_get_state(c) == PA_CONTEXT_READY;
    const bool was = me->ready_.exchange(ready, std::memory_order_acq_rel);
    if (was && !ready && me->onLost_) me->onLost_();
    // Wake every waiter: a failed connection cancels their operations.
    pa_threaded_mainloop_signal(me->loop_, 0);
}

bool PulseLoop::finish(pa_operation* op) {
    if (!op) return false;
    // Completion runs on the loop thread, which needs the lock we hold while
    // waiting, so it cannot slip past between here and the wait.
    pa_operation_set_state_callback(
        op,
        [](pa_operation*, void* loop) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
        },
        loop_);
    while (pa_operation_get_state(op) == PA_OPERATION_RUNNING) pa_threaded_mainloop_wait(loop_);
    bool done = pa_operation_get_state(op) == PA_OPERATION_DONE;
    pa_operation_unref(op);
    return done;
}

}  // namespace vt::platform::pulse
