#include "ui/visualiser/frame_timer.h"

#include <QQuickWindow>
#include <ctime>

namespace vt::ui::visualiser {

namespace {

int64_t monotonicNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// About a second of frames between flushes: a reader sees the log grow while
// the program runs, without a write per frame.
constexpr int flushEvery = 60;

}  // namespace

FrameTimer::FrameTimer(QQuickWindow* window, std::FILE* log) : QObject(window), log_(log) {
    connect(window, &QQuickWindow::beforeSynchronizing, this, &FrameTimer::began,
            Qt::DirectConnection);
    connect(window, &QQuickWindow::frameSwapped, this, &FrameTimer::swapped, Qt::DirectConnection);
}

FrameTimer::~FrameTimer() {
    std::fclose(log_);
}

void FrameTimer::began() {
    began_ = monotonicNs();
}

void FrameTimer::swapped() {
    const int64_t now = monotonicNs();
    if (began_ < 0) return;
    const double frameMs = static_cast<double>(now - began_) * 1e-6;
    const double intervalMs = lastSwap_ < 0 ? -1.0 : static_cast<double>(now - lastSwap_) * 1e-6;
    std::fprintf(log_, "%.6f %.3f %.3f\n", static_cast<double>(now) * 1e-9, frameMs, intervalMs);
    lastSwap_ = now;
    began_ = -1;
    if (++unflushed_ >= flushEvery) {
        std::fflush(log_);
        unflushed_ = 0;
    }
}

bool attachFrameTimer(QQuickWindow* window) {
    const QByteArray path = qgetenv("VELLATONE_FRAME_LOG");
    if (window == nullptr || path.isEmpty()) return false;
    std::FILE* log = std::fopen(path.constData(), "w");
    if (log == nullptr) {
        qWarning("Vellatone: cannot write the frame log %s", path.constData());
        return false;
    }
    new FrameTimer(window, log);
    return true;
}

}  // namespace vt::ui::visualiser
