#include "platform/pulse/pulse_convert.h"

#include <cctype>

namespace vt::platform::pulse {

std::map<std::string, std::string> propertiesOf(const pa_proplist* props) {
    std::map<std::string, std::string> out;
    if (!props) return out;
    void* state = nullptr;
    while (const char* key = pa_proplist_iterate(props, &state)) {
        // Binary properties (icons and the like) have no string form; skip them.
        if (const char* value = pa_proplist_gets(props, key)) out[key] = value;
    }
    return out;
}

SinkInfo sinkInfoOf(const pa_sink_info& info) {
    SinkInfo s;
    s.id = info.index;
    s.name = info.name ? info.name : "";
    s.description = info.description ? info.description : s.name;
    s.channels = info.sample_spec.channels;
    s.sampleRate = info.sample_spec.rate;
    s.properties = propertiesOf(info.proplist);
    if (info.active_port && info.active_port->name) s.activePort = info.active_port->name;
    if (auto it = s.properties.find("device.profile.name"); it != s.properties.end())
        s.activeProfile = it->second;
    s.driver = info.driver ? info.driver : "";
    s.monitorSource = info.monitor_source_name ? info.monitor_source_name : "";
    s.ownerModule = info.owner_module;
    pa_usec_t latency = info.latency ? info.latency : info.configured_latency;
    s.latencyMs = static_cast<double>(latency) / 1000.0;
    s.hasVolume = true;  // every sink takes a volume, in hardware or in software
    pa_volume_t avg = pa_cvolume_avg(&info.volume);
    s.volumeScalar = static_cast<double>(avg) / PA_VOLUME_NORM;
    s.volumeLinear = pa_sw_volume_to_linear(avg);
    s.muted = info.mute != 0;
    return s;
}

SinkInputInfo sinkInputInfoOf(const pa_sink_input_info& info) {
    SinkInputInfo i;
    i.index = info.index;
    i.sink = info.sink;
    i.properties = propertiesOf(info.proplist);
    i.ours = i.properties.count(kOwnStreamProperty) > 0;
    i.volumeLinear = pa_sw_volume_to_linear(pa_cvolume_avg(&info.volume));
    i.muted = info.mute != 0;
    return i;
}

namespace {

std::string keep(const std::string& in, bool (*ok)(unsigned char)) {
    std::string out;
    for (unsigned char c : in)
        if (ok(c)) out.push_back(static_cast<char>(c));
    return out;
}

bool nameChar(unsigned char c) {
    return std::isalnum(c) || c == '_' || c == '-' || c == '.';
}

bool descriptionChar(unsigned char c) {
    return c >= 0x20 && c != '\'' && c != '"' && c != '\\' && c != 0x7f;
}

}  // namespace

std::string nullSinkArguments(const std::string& name, const std::string& description,
                              uint32_t rate, uint32_t channels, bool float32) {
    std::string args = "sink_name=" + keep(name, nameChar);
    args += " rate=" + std::to_string(rate);
    args += " channels=" + std::to_string(channels);
    if (float32) args += " format=float32le";
    // Opted out of WirePlumber's restore. WirePlumber 0.4.13 (Debian 12)
    // compares the state.* properties with a boolean and so never sees them,
    // and would put back the volume a sink of this name had last, a moment
    // after the copy of the speaker's. Its restore leaves alone every sink
    // whose volume the device's routes keep (device.routes present, not 0);
    // ours has none to keep, so nothing is restored or kept for it.
    args += " sink_properties=\"device.description='" + keep(description, descriptionChar) + "' " +
            kOwnSinkProperty +
            "=1 device.routes=1 state.restore-props=false state.restore-target=false\"";
    return args;
}

std::string playbackStreamName(const SinkInfo& sink) {
    return "Vellatone → " + (sink.description.empty() ? sink.name : sink.description);
}

std::string ownStreamKey(const std::string& device) {
    return "vellatone-stream:" + device;
}

pa_proplist* ownStreamProperties(const std::string& device, const std::string& shownName) {
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_MEDIA_NAME, shownName.c_str());
    pa_proplist_sets(props, kOwnStreamProperty, "1");
    pa_proplist_sets(props, "state.restore-props", "false");
    pa_proplist_sets(props, "state.restore-target", "false");
    // pipewire-pulse keys its own stream restore by the application id, not
    // by the id above: one of our own per device keeps speakers apart there.
    const std::string key = ownStreamKey(device);
    pa_proplist_sets(props, "module-stream-restore.id", key.c_str());
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, key.c_str());
    return props;
}

}  // namespace vt::platform::pulse
