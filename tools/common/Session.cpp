// SPDX-License-Identifier: MIT
#include "Session.h"

#include <regex>

namespace vyrix::tools {

namespace {
constexpr uint32_t kUartBaud = 57600;
constexpr uint32_t kUsbProduct = 4;
}  // namespace

std::string CheckTransport(const Transport& t) {
    const int chosen = !t.uart.empty() + !t.usb.empty() + !t.bt.empty() + t.sim;
    if (chosen == 0) return "choose a transport: --uart PATH, --usb SERIAL, --bt ADDRESS or --sim";
    if (chosen > 1) return "choose one transport: --uart, --usb, --bt or --sim";
    static const std::regex address("([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}");
    if (!t.bt.empty() && !std::regex_match(t.bt, address))
        return "--bt " + t.bt + ": not a Bluetooth address (like 00:11:22:33:44:55)";
    if (!t.passkey.empty() && t.bt.empty()) return "--passkey goes with --bt";
    return "";
}

Session::Session(const Transport& transport, unsigned replyTimeoutMs) : transport_(transport) {
    Transport& t = transport_;
    result_ = Vyrix_OpenLibrary(&library_);
    if (result_ != eVYRIX_RETURN_SUCCESS) {
        failure_ = "cannot open the library";
        return;
    }
    Vyrix_ConnectionInfoS info{};
    if (t.sim) {
        sim_ = vyrix::sim::DeviceSimulator::OverPty();
        t.uart = sim_->SlavePath();
    }
    if (t.sim || !t.uart.empty()) {
        info.connectionType = eVYRIX_CONNECTION_UART;
        info.uartInfo = Vyrix_UartInfoS{t.uart.c_str(), kUartBaud, 0, 1};
    } else if (!t.usb.empty()) {
        info.connectionType = eVYRIX_CONNECTION_USB;
        info.usbInfo = Vyrix_USBInfoS{kUsbProduct, t.usb.c_str()};
    } else if (!t.bt.empty()) {
        info.connectionType = eVYRIX_CONNECTION_BTH;
        info.bthInfo = Vyrix_BTHInfoS{t.bt.c_str(), t.passkey.c_str()};
    } else {
        result_ = VYRIX_RESULT(eVYRIX_INVALID_ARGUMENT);
        failure_ = "choose a transport: --uart PATH, --usb SERIAL, --bt ADDRESS or --sim";
        return;
    }
    result_ = Vyrix_OpenConnection(library_, &connection_, info);
    if (result_ != eVYRIX_RETURN_SUCCESS) {
        connection_ = nullptr;
        failure_ = Vyrix_GetLastErrorText();
        if (failure_.empty()) failure_ = "cannot connect to the device";
        return;
    }
    if (replyTimeoutMs != 0) {
        result_ = Vyrix_SetReplyTimeout(connection_, replyTimeoutMs);
        if (result_ != eVYRIX_RETURN_SUCCESS) failure_ = "cannot set the reply timeout";
    }
}

void Session::Close() {
    std::lock_guard<std::mutex> lock(closeMutex_);
    if (closed_) return;
    closed_ = true;
    if (connection_ != nullptr) Vyrix_CloseConnection(connection_);
}

Session::~Session() {
    Close();
    if (library_ != nullptr) Vyrix_CloseLibrary(library_);
}

}  // namespace vyrix::tools
