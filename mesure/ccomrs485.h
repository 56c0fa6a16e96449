// Half-duplex RS-485 link to the measurement module: direction switching through the board's
// control device, the serial port opened around every request, answers collected with a deadline
// and retries, and the frame CRC both module protocols use.
#ifndef TOV_MESURE_CCOMRS485_H
#define TOV_MESURE_CCOMRS485_H

#include "mesure/rwktimer.h"

class CComRS485 {
public:
    CComRS485();
    virtual ~CComRS485();
    CComRS485(const CComRS485&) = delete;
    CComRS485& operator=(const CComRS485&) = delete;

    int prepare_to_send();
    int prepare_to_recv();

    // 1 when open, 0 on failure.
    int OpenComPort(unsigned baud);
    void CloseComPort();
    int SendComPort(char* buf, int len);
    int ReadComPortBuffer(char* buf, int len);
    // Up to len bytes, one at a time, within the shared read deadline; the count read.
    int ReadComPort(char* buf, int len);
    bool GetComPortOpenStatus() const { return m_open; }

    // Opens the port, sends tx and reads rxLen - 1 bytes (callers pass one more than the answer
    // length), up to tries times, then closes. The last attempt's count, or -1 when the port did
    // not open or no request went out whole.
    int sendWaitForRespAuto(int baud, char* tx, unsigned txLen, char* rx, unsigned rxLen,
                            unsigned short tries);

    // CRC-16/XMODEM (poly 0x1021, init 0, no reflection, no final XOR), four bits at a time.
    static unsigned short calculateCRC(const unsigned char* data, unsigned len);
    // Microseconds slept after each byte read and after each read call at this baud rate.
    static void delaysForBaud(unsigned baud, unsigned* charDelayUs, unsigned* frameDelayUs);

    unsigned charDelayUs() const { return m_charDelay; }
    unsigned frameDelayUs() const { return m_frameDelay; }

    static const char* const CTRL_DEVICE; // "/dev/rs485_Ctrl"
    static const int READ_TIMEOUT_MS = 1500;

private:
    int m_port = -1;
    unsigned m_charDelay = 0;
    unsigned m_frameDelay = 0;
    rwkTimer m_timer;
    int m_ctrlFd = -1;
    bool m_open = false;

    // One deadline for every link object, kept process-wide on purpose: links must not be used
    // from two threads at once.
    static int KillTimeInMs;
};

#endif
