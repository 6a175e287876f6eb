// The library opened with one connection, over a chosen transport or the
// built-in device simulator.
#ifndef VYRIX_TOOLS_SESSION_H
#define VYRIX_TOOLS_SESSION_H

#include <memory>
#include <string>

#include "DeviceSimulator.h"
#include "Vyrix_Api.h"

namespace vyrix::tools {

struct Transport {
    std::string uart;     // device path
    std::string usb;      // serial number
    std::string bt;       // address
    std::string passkey;  // Bluetooth pass key
    bool sim = false;     // start the built-in simulator and use it
};

class Session {
public:
    // Opens the library and the connection; Result() tells how it went.
    explicit Session(const Transport& transport);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Vyrix_ReturnStatus Result() const { return result_; }
    const std::string& Failure() const { return failure_; }
    void* Handle() const { return connection_; }
    vyrix::sim::DeviceSimulator* Simulator() const { return sim_.get(); }

private:
    Transport transport_;  // the connection record points into it
    std::unique_ptr<vyrix::sim::DeviceSimulator> sim_;
    void* library_ = nullptr;
    void* connection_ = nullptr;
    Vyrix_ReturnStatus result_ = eVYRIX_RETURN_SUCCESS;
    std::string failure_;
};

}  // namespace vyrix::tools

#endif
