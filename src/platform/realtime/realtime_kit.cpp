#include "platform/realtime/realtime_kit.h"

#include <sys/resource.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

namespace vt::platform {

namespace {

constexpr const char* kService = "org.freedesktop.RealtimeKit1";
constexpr const char* kObject = "/org/freedesktop/RealtimeKit1";
constexpr const char* kInterface = "org.freedesktop.RealtimeKit1";
// The daemon's default cap, used when it does not say: 200 ms of CPU time at
// real-time priority without a blocking call, after which the kernel sends
// SIGXCPU. An audio thread blocks every few milliseconds.
constexpr int64_t kDefaultRtTimeUsec = 200000;

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

std::string errorText(const sd_bus_error& error, int rc) {
    if (error.message) return error.message;
    if (error.name) return error.name;
    return std::strerror(-rc);
}

}  // namespace

bool makeThreadRealtimeViaRealtimeKit(int priority, std::string& why) {
    sd_bus* raw = nullptr;
    int rc = sd_bus_open_system(&raw);
    if (rc < 0) {
        why = std::string("no system bus: ") + std::strerror(-rc);
        return false;
    }
    std::unique_ptr<sd_bus, BusDeleter> bus(raw);

    sd_bus_error error = SD_BUS_ERROR_NULL;
    int32_t maxPriority = 0;
    rc = sd_bus_get_property_trivial(bus.get(), kService, kObject, kInterface,
                                     "MaxRealtimePriority", &error, 'i', &maxPriority);
    if (rc < 0) {
        why = errorText(error, rc);
        sd_bus_error_free(&error);
        return false;
    }
    int64_t rtTimeMax = kDefaultRtTimeUsec;
    if (sd_bus_get_property_trivial(bus.get(), kService, kObject, kInterface, "RTTimeUSecMax",
                                    &error, 'x', &rtTimeMax) < 0 ||
        rtTimeMax <= 0) {
        rtTimeMax = kDefaultRtTimeUsec;
    }
    sd_bus_error_free(&error);

    rlimit limit{};
    limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(rtTimeMax);
    if (setrlimit(RLIMIT_RTTIME, &limit) != 0) {
        why = std::string("cannot limit real-time CPU time: ") + std::strerror(errno);
        return false;
    }

    const auto granted = static_cast<uint32_t>(std::clamp(priority, 1, std::max(1, maxPriority)));
    sd_bus_message* reply = nullptr;
    rc = sd_bus_call_method(bus.get(), kService, kObject, kInterface, "MakeThreadRealtimeWithPID",
                            &error, &reply, "ttu", static_cast<uint64_t>(getpid()),
                            static_cast<uint64_t>(gettid()), granted);
    sd_bus_message_unref(reply);
    if (rc < 0) {
        why = errorText(error, rc);
        sd_bus_error_free(&error);
        return false;
    }
    return true;
}

}  // namespace vt::platform
