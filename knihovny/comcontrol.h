#pragma once

#include <semaphore.h>

#include <atomic>
#include <memory>
#include <string>

#include "knihovny/descriptor.h"
#include "knihovny/mutex.h"
#include "knihovny/thread3.h"

class ErrorRepeats;

// A serial port (or any other terminal device) with a thread that reads it.
//
// The thread opens and sets the device and hands what comes to the Zpracuj... hooks. Any thread may send;
// senders take turns. Life: NastavUkonceni and SetCom, then Connect; the port is open when fd is not -1. The
// device is opened once: after a read error the reading goes on, and nothing opens it anew but the next
// Connect. Connect, Disconnect, StopReading, Start and Stop are for one controlling thread.
//
// A derived class that overrides a hook calls StopReading in its own destructor, and brings the other
// overloads of a hook's name into its scope ("using ComControl::ZpracujByte;").
class ComControl : public Thread3 {
  public:
    ComControl();
    ~ComControl();

    // Sets what the next opening uses. Values other than these leave the device as it is.
    //   speed     baud; 0 leaves all settings of the device alone; 200 sets 50 baud
    //   parity    1 none, 2 even, 3 odd, 4 none
    //   databits  5 to 8
    //   stopbits  1 or 2
    //   flow      RTS/CTS: 1 on, 2 off
    //   mode      1 lines with echo (canonical), 2 raw
    //   xflow     XON/XOFF: 1 on, 2 off
    void SetCom(int speed, int parity, int databits, int stopbits, int flow, int mode, int xflow,
                const std::string& device);
    // The same with 8 data bits and 1 stop bit.
    void SetCom(int speed, int parity, int flow, int mode, int xflow, const std::string& device);

    // Gives the channel a stop flag of the caller, which has to outlive it. While that flag is true the
    // reading ends, within 0.2 s, and sends are dropped. Before that the channel has a flag of its own, which
    // is false.
    void NastavUkonceni(std::atomic<bool>* flag);
    // Writes the current stop flag.
    void NastavUkonceni(bool value);

    // The path of the device, empty before SetCom.
    std::string getDevice() const EXCLUDES(mutex_);

    // Unless connected, starts the thread and waits until it reads, at most 5 seconds. Returns whether it is
    // connected.
    bool Connect();

    // Ends the reading, within 0.2 s, and closes the device. Returns true; or false when no reading was under
    // way, after 5 seconds.
    bool Disconnect();

    // Ends the reading and closes the device, without the wait.
    void StopReading();

    // Send the bytes, waiting for other senders; at most 3 seconds for the device to take them. What is not
    // taken is dropped, with a line in the log when the device fails. With the stop flag set they return at
    // once. Return how many bytes the device took, be it late.
    int Send(const char* text);
    int Send(const std::string& text);
    int SendBinary(const char* data, int length);

    // Offers one byte to the device, waiting for other senders only. Returns whether it was taken; when it
    // was not, nothing is logged.
    bool TrySendByte(char byte);

    // Sends one byte, trying every second until the device takes it: without any bound.
    void SendByte(const char* byte);

    // The descriptor of the device for a look at it: -1 until it is open. Keeps its value when the device was
    // closed, so it is never to be used for input or output. Written by the reading thread.
    std::atomic<int> fd{-1};

  protected:
    // The hooks do nothing by themselves. These are called on the reading thread:
    // a block of up to 512 bytes, with a zero byte behind it, then its bytes one by one in both forms,
    virtual void ZpracujByte(char* c);  // c[1] is 0
    virtual void ZpracujByte(unsigned char c);
    virtual void ZpracujPacket(int length, const unsigned char* data);
    // and whenever a look at the device gives nothing: about five times a second while there is nothing to
    // read.
    virtual void OnInterval();
    // These are called on the sending thread, while other senders wait.
    virtual void AfterSend();
    virtual void AfterSend(const char* data, int length);
    virtual void BeforeSend(const char* data, int length);

    void BeforeStop() override;
    void ExecuteThread() override;

  private:
    struct Settings {
        int speed = 9600;
        int parity = 1;
        int databits = 8;
        int stopbits = 1;
        int flow = 2;
        int xflow = 2;
        int mode = 2;
        std::string device;
    };

    bool OpenPort() EXCLUDES(mutex_);
    static bool SetComProperties(int descriptor, const Settings& settings);
    static int readWhenReady(int descriptor, char* data, ErrorRepeats& repeats);
    void readUntilStopped(int descriptor);
    void deliver(int length, char* data);
    std::shared_ptr<Descriptor> port() const EXCLUDES(mutex_);
    bool writeByte(const char* byte) const EXCLUDES(mutex_);
    template <class Write>
    void sendInTurn(const char* data, int length, const Write& write);

    mutable Mutex mutex_;
    Settings settings_ GUARDED_BY(mutex_);
    // The open device. A sender holds on to it while it writes, so its number cannot go to another file under
    // it.
    std::shared_ptr<Descriptor> port_ GUARDED_BY(mutex_);

    std::atomic<bool> own_stop_{false};
    std::atomic<std::atomic<bool>*> stopFlag{&own_stop_};
    sem_t sendLock;
    std::atomic<bool> connected{false};
    std::atomic<bool> finished{false};
    std::atomic<bool> stopRequested{false};
};
