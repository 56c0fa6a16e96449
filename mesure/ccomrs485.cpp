#include "mesure/ccomrs485.h"

#include "mesure/rs232.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

const char* const CComRS485::CTRL_DEVICE = "/dev/rs485_Ctrl";
int CComRS485::KillTimeInMs = 0;

namespace {

const int kPort = 1;
const unsigned long kTransmit = 1;
const unsigned long kReceive = 0;

const unsigned short kCrcNibbleTable[16] = {
    0x0000, 0x1021, 0x2042, 0x3063, 0x4084, 0x50A5, 0x60C6, 0x70E7,
    0x8108, 0x9129, 0xA14A, 0xB16B, 0xC18C, 0xD1AD, 0xE1CE, 0xF1EF,
};

} // namespace

CComRS485::CComRS485()
{
    m_ctrlFd = open(CTRL_DEVICE, O_RDWR | O_NOCTTY | O_NDELAY);
    if (m_ctrlFd < 0) {
        printf("Open %s faild\n", CTRL_DEVICE);
        m_ctrlFd = -1;
        return;
    }
    prepare_to_recv();
}

CComRS485::~CComRS485()
{
    CloseComPort();
}

int CComRS485::prepare_to_send()
{
    if (ioctl(m_ctrlFd, kTransmit, 0) < 0) {
        printf("rs485 set ctl to high failed!\r");
        return -1;
    }
    return 0;
}

int CComRS485::prepare_to_recv()
{
    if (ioctl(m_ctrlFd, kReceive, 0) < 0) {
        printf("rs485 set ctl to low failed!\r");
        return -1;
    }
    return 0;
}

void CComRS485::delaysForBaud(unsigned baud, unsigned* charDelayUs, unsigned* frameDelayUs)
{
    unsigned chr = 750, frame = 1750;
    if (baud > 0 && baud <= 19200) {
        chr = 15000000u / baud;   // 1.5 character times of 10 bits
        frame = 35000000u / baud; // 3.5 character times
    }
    if (charDelayUs)
        *charDelayUs = chr;
    if (frameDelayUs)
        *frameDelayUs = frame;
}

int CComRS485::OpenComPort(unsigned baud)
{
    if (m_open)
        CloseComPort();
    m_port = kPort;
    delaysForBaud(baud, &m_charDelay, &m_frameDelay);
    if (RS232_OpenComport(kPort, static_cast<int>(baud), "8N1") != 0) {
        printf("CComRS485:: Can not open COM port id: %d\n", kPort);
        CloseComPort();
        return 0;
    }
    m_open = true;
    return 1;
}

void CComRS485::CloseComPort()
{
    if (!m_open)
        return;
    RS232_CloseComport(m_port);
    m_port = -1;
    m_open = false;
}

int CComRS485::SendComPort(char* buf, int len)
{
    if (!m_open)
        return 0;
    return RS232_SendBuf(m_port, reinterpret_cast<unsigned char*>(buf), len);
}

int CComRS485::ReadComPortBuffer(char* buf, int len)
{
    if (!m_open)
        return 0;
    const int n = RS232_PollComport(m_port, reinterpret_cast<unsigned char*>(buf), len);
    usleep(m_frameDelay);
    return n < 0 ? -1 : n;
}

int CComRS485::ReadComPort(char* buf, int len)
{
    if (!m_open)
        return 0;
    // The stopwatch starts itself on its first reading, so the deadline is always 1500 ms ahead.
    KillTimeInMs = m_timer.elapsed() + READ_TIMEOUT_MS;
    if (len < 1 || buf == nullptr) {
        usleep(m_frameDelay);
        return 0;
    }
    int count = 0;
    for (;;) {
        const int n = RS232_PollComport(m_port, reinterpret_cast<unsigned char*>(buf + count), 1);
        usleep(m_charDelay);
        if (n == 1)
            ++count;
        if (m_timer.elapsed() > KillTimeInMs) {
            m_timer.stop();
            usleep(m_frameDelay);
            return count;
        }
        if (count >= len) {
            usleep(m_frameDelay);
            return count;
        }
    }
}

int CComRS485::sendWaitForRespAuto(int baud, char* tx, unsigned txLen, char* rx, unsigned rxLen,
                                   unsigned short tries)
{
    if (OpenComPort(static_cast<unsigned>(baud)) == 0)
        return -1;
    usleep(100);
    int result = -1;
    const int want = rxLen > 0 ? static_cast<int>(rxLen) - 1 : 0;
    for (unsigned short attempt = 0; attempt < tries; ++attempt) {
        if (!m_open)
            continue;
        prepare_to_send();
        const int sent = SendComPort(tx, static_cast<int>(txLen));
        prepare_to_recv();
        if (sent != static_cast<int>(txLen))
            continue;
        result = ReadComPort(rx, want);
        if (result == want)
            break;
    }
    CloseComPort();
    usleep(500);
    return result;
}

unsigned short CComRS485::calculateCRC(const unsigned char* data, unsigned len)
{
    unsigned crc = 0;
    if (data == nullptr)
        return 0;
    for (unsigned i = 0; i < len; ++i) {
        const unsigned byte = data[i];
        unsigned t = kCrcNibbleTable[((crc >> 12) ^ (byte >> 4)) & 0x0F] ^ (crc << 4);
        t &= 0xFFFF;
        crc = kCrcNibbleTable[((t >> 12) ^ (byte & 0x0F)) & 0x0F] ^ (t << 4);
        crc &= 0xFFFF;
    }
    return static_cast<unsigned short>(crc);
}
