#include "Session.h"

namespace vyrix::tools {

namespace {
constexpr uint32_t kUartBaud = 57600;
constexpr uint32_t kUsbProduct = 4;
}  // namespace

Session::Session(const Transport& transport) : transport_(transport) {
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
    if (result_ != eVYRIX_RETURN_SUCCESS) failure_ = "cannot connect to the device";
}

Session::~Session() {
    if (connection_ != nullptr) Vyrix_CloseConnection(connection_);
    if (library_ != nullptr) Vyrix_CloseLibrary(library_);
}

}  // namespace vyrix::tools
