// A sound server's streams for the mixer's tests, with the cubic volume law
// both real servers use.
#pragma once

#include <cmath>
#include <functional>
#include <map>
#include <string>

#include "mixer/app_streams.h"

namespace vt::mixer {

class FakeStreams final : public AppStreams {
  public:
    std::function<void()> handler;
    std::map<uint32_t, AppStream> all;
    int writes = 0;
    std::vector<AppStream> streams() override {
        std::vector<AppStream> out;
        for (const auto& [i, s] : all) out.push_back(s);
        return out;
    }
    void setVolume(uint32_t index, const std::vector<RawVolume>& v) override {
        ++writes;
        if (auto it = all.find(index); it != all.end()) it->second.volume = v;
    }
    void setChangeHandler(std::function<void()> h) override { handler = std::move(h); }
    std::map<std::string, std::vector<RawVolume>> stored;  // by restore key
    bool away = false;  // the server has gone: kept volumes cannot be written
    bool rememberVolume(const std::string& key, const std::vector<RawVolume>& v) override {
        if (away) return false;
        stored[key] = v;
        return true;
    }
    void settle() override {}
    double toLinear(RawVolume v) const override { return std::pow(double(v) / kFullVolume, 3); }
    RawVolume fromLinear(double l) const override {
        return RawVolume(std::lround(std::cbrt(l) * kFullVolume));
    }
    void add(uint32_t index, std::vector<RawVolume> v) {
        all[index] = AppStream{index, {{kRestoreKeyProperty, "key" + std::to_string(index)}}, v};
    }
};

}  // namespace vt::mixer
