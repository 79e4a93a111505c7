// What can stop the engine from starting, and the text a person is shown for
// it. The text is the case as written in code, payload included; the notice
// that carries it adds the sentences around it.
#pragma once

#include <stdexcept>
#include <string>

namespace vt::engine {

class EngineError : public std::runtime_error {
  public:
    enum class Kind { deviceNotFound, soundServer, captureSinkWrongRate, captureSinkMissing };

    // No sink with this name (an output's device UID).
    static EngineError deviceNotFound(const std::string& uid);
    // The sound server refused; status is its error code.
    static EngineError soundServer(int status);
    // The capture sink exists but does not run at 48 kHz.
    static EngineError captureSinkWrongRate(double rate);
    // The capture sink could not be found or made.
    static EngineError captureSinkMissing();

    Kind kind() const { return kind_; }
    const std::string& uid() const { return uid_; }
    int status() const { return status_; }
    double rate() const { return rate_; }

  private:
    EngineError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}

    Kind kind_;
    std::string uid_;
    int status_ = 0;
    double rate_ = 0;
};

}  // namespace vt::engine
