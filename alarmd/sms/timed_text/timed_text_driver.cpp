#include "alarmd/alarmd.h"
#include "alarmd/sms/driver.h"
#include "alarmd/sms/timed_text/exchange.h"
#include "alarmd/sms/timed_text/initialisation.h"
#include "alarmd/sms/timed_text/message_store.h"
#include "alarmd/sms/timed_text/modem_port.h"
#include "alarmd/sms/timed_text/submission.h"
#include "knihovny/generalfce.h"

namespace {

constexpr int kRawMode = 2;
constexpr int kInitialised = 2;  // acknowledged commands that make an initialisation a success
constexpr long kOrderNanoseconds = 50000000;

// A modem in text mode on the serial channel MyModem: orders with a fixed time for their answers.
class TimedTextDriver final : public ModemDriver {
  public:
    bool open(const std::string& device) override {
        MyModem.NastavUkonceni(&konecModem);
        MyModem.SetCom(modem_speed, modem_parity, modem_databit, modem_stopbit, modem_flow, kRawMode,
                       modem_xflow, device);
        return MyModem.Connect();
    }
    bool usable() const override { return MyModem.fd != -1; }
    void close() override { MyModem.Stop(); }

    bool initialise() override { return nastavModem() >= kInitialised; }

    SendResult send(const std::string& number, const std::string& text) override {
        return submitMessage(number, text);
    }

    std::optional<IncomingSms> receive() override { return askForMessage() ? takeMessage() : std::nullopt; }
    void forgetReceived() override { clearMessageStore(); }

    // The order's terminating zero goes out too.
    void order(const std::string& command) override {
        sendOrderAndZero(command);
        MySleep(0, kOrderNanoseconds);
    }
};

}  // namespace

ModemDriver& modemDriver() {
    static TimedTextDriver driver;
    return driver;
}
