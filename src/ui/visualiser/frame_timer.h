// Logs how long the window takes over each frame, for the frame-time
// measurement: with VELLATONE_FRAME_LOG naming a file, every frame appends
//   <monotonic seconds> <frame ms> <interval ms>
// where the frame runs from the start of synchronising the scene to the
// buffer swap, and the interval is the time since the previous swap (-1 for
// the first frame). Both signals come on the render thread, so the timer
// keeps to it and never touches the GUI thread.
#pragma once

#include <QObject>
#include <cstdint>
#include <cstdio>

class QQuickWindow;

namespace vt::ui::visualiser {

class FrameTimer : public QObject {
    Q_OBJECT

  public:
    // The window owns the timer; the file is closed with it.
    FrameTimer(QQuickWindow* window, std::FILE* log);
    ~FrameTimer() override;

  private:
    void began();
    void swapped();

    std::FILE* log_;
    int64_t began_ = -1;
    int64_t lastSwap_ = -1;
    int unflushed_ = 0;
};

// Attaches a FrameTimer when VELLATONE_FRAME_LOG is set; returns whether it
// did. Call once, when the window exists.
bool attachFrameTimer(QQuickWindow* window);

}  // namespace vt::ui::visualiser
