#include "mesure/rs232.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

char comports[RS232_PORTNR][16] = {"/dev/ttyUSB0", "/dev/ttySAC1"};
int Cport[RS232_PORTNR] = {-1, -1};
struct termios old_port_settings[RS232_PORTNR];
struct termios new_port_settings;

namespace {

bool validPort(int port)
{
    return port >= 0 && port < RS232_PORTNR;
}

speed_t speedFor(int baudrate)
{
    switch (baudrate) {
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    default: return 0;
    }
}

bool modeFlags(const char* mode, tcflag_t* cflags, tcflag_t* iflags)
{
    if (mode == nullptr || strlen(mode) != 3) {
        printf("invalid mode \"%s\"\n", mode ? mode : "");
        return false;
    }
    switch (mode[0]) {
    case '8': *cflags = CS8; break;
    case '7': *cflags = CS7; break;
    case '6': *cflags = CS6; break;
    case '5': *cflags = CS5; break;
    default:
        printf("invalid number of data-bits '%c'\n", mode[0]);
        return false;
    }
    switch (mode[1]) {
    case 'N': case 'n':
        *iflags = IGNPAR;
        break;
    case 'E': case 'e':
        *cflags |= PARENB;
        *iflags = INPCK;
        break;
    case 'O': case 'o':
        *cflags |= PARENB | PARODD;
        *iflags = INPCK;
        break;
    default:
        printf("invalid parity '%c'\n", mode[1]);
        return false;
    }
    switch (mode[2]) {
    case '1': break;
    case '2': *cflags |= CSTOPB; break;
    default:
        printf("invalid number of stop bits '%c'\n", mode[2]);
        return false;
    }
    return true;
}

// When the lines cannot be read, only the one asked for is written: never what happened to be on
// the stack.
void changeModemLine(int port, int line, bool set)
{
    int status = 0;
    if (ioctl(Cport[port], TIOCMGET, &status) == -1)
        perror("unable to get portstatus");
    if (set)
        status |= line;
    else
        status &= ~line;
    if (ioctl(Cport[port], TIOCMSET, &status) == -1)
        perror("unable to set portstatus");
}

int modemLine(int port, int line)
{
    int status = 0;
    if (!validPort(port))
        return 0;
    ioctl(Cport[port], TIOCMGET, &status);
    return (status & line) ? 1 : 0;
}

} // namespace

int RS232_OpenComport(int comport_number, int baudrate, const char* mode)
{
    if (!validPort(comport_number)) {
        puts("illegal comport number");
        return 1;
    }
    const speed_t speed = speedFor(baudrate);
    if (speed == 0) {
        puts("invalid baudrate");
        return 1;
    }
    tcflag_t cflags = 0, iflags = 0;
    if (!modeFlags(mode, &cflags, &iflags))
        return 1;

    int& fd = Cport[comport_number];
    fd = open(comports[comport_number], O_RDWR | O_NOCTTY | O_NDELAY | O_EXCL);
    if (fd == -1) {
        perror("unable to open comport ");
        return 1;
    }
    if (tcgetattr(fd, old_port_settings + comport_number) == -1) {
        close(fd);
        perror("unable to read portsettings ");
        return 1;
    }
    memset(&new_port_settings, 0, sizeof(new_port_settings));
    new_port_settings.c_cflag = cflags | CLOCAL | CREAD;
    new_port_settings.c_iflag = iflags;
    new_port_settings.c_oflag = 0;
    new_port_settings.c_lflag = 0;
    // All control characters stay 0 (VMIN and VTIME too): reads return at once.
    cfsetispeed(&new_port_settings, speed);
    cfsetospeed(&new_port_settings, speed);
    if (tcsetattr(fd, TCSANOW, &new_port_settings) == -1) {
        close(fd);
        perror("unable to adjust portsettings ");
        return 1;
    }
    changeModemLine(comport_number, TIOCM_DTR | TIOCM_RTS, true);
    return 0;
}

int RS232_PollComport(int comport_number, unsigned char* buf, int size)
{
    if (!validPort(comport_number) || buf == nullptr || size < 0)
        return -1;
    const ssize_t n = read(Cport[comport_number], buf, static_cast<size_t>(size));
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return 0; // the port is non-blocking: nothing waiting is not an error
    return static_cast<int>(n);
}

int RS232_ReadCharComport(int comport_number, unsigned char* byte)
{
    unsigned char local = 0;
    if (!validPort(comport_number))
        return -1;
    const int n = static_cast<int>(read(Cport[comport_number], &local, 1));
    if (byte != nullptr && n == 1)
        *byte = local;
    return n;
}

int RS232_SendByte(int comport_number, unsigned char byte)
{
    if (!validPort(comport_number))
        return 1;
    const ssize_t n = write(Cport[comport_number], &byte, 1);
    if (tcdrain(Cport[comport_number]) == -1) {
        perror("******** Error tcdrain !! ***********\n");
        return 1;
    }
    return n == -1 ? 1 : 0;
}

int RS232_SendBuf(int comport_number, const unsigned char* buf, int size)
{
    if (!validPort(comport_number) || buf == nullptr || size < 0)
        return 1;
    const ssize_t n = write(Cport[comport_number], buf, static_cast<size_t>(size));
    if (tcdrain(Cport[comport_number]) == -1) {
        perror("******** Error tcdrain !! ***********\n");
        return 1;
    }
    if (n < 0 || n > size)
        return 1;
    return static_cast<int>(n);
}

void RS232_cputs(int comport_number, const char* text)
{
    if (text == nullptr)
        return;
    for (; *text != '\0'; ++text)
        RS232_SendByte(comport_number, static_cast<unsigned char>(*text));
}

void RS232_CloseComport(int comport_number)
{
    if (!validPort(comport_number) || Cport[comport_number] <= 0)
        return;
    changeModemLine(comport_number, TIOCM_DTR | TIOCM_RTS, false);
    tcsetattr(Cport[comport_number], TCSANOW, old_port_settings + comport_number);
    close(Cport[comport_number]);
}

int RS232_IsDCDEnabled(int comport_number)
{
    return modemLine(comport_number, TIOCM_CAR);
}

int RS232_IsCTSEnabled(int comport_number)
{
    return modemLine(comport_number, TIOCM_CTS);
}

int RS232_IsDSREnabled(int comport_number)
{
    return modemLine(comport_number, TIOCM_DSR);
}

void RS232_enableDTR(int comport_number)
{
    if (validPort(comport_number))
        changeModemLine(comport_number, TIOCM_DTR, true);
}

void RS232_disableDTR(int comport_number)
{
    if (validPort(comport_number))
        changeModemLine(comport_number, TIOCM_DTR, false);
}

void RS232_enableRTS(int comport_number)
{
    if (validPort(comport_number))
        changeModemLine(comport_number, TIOCM_RTS, true);
}

void RS232_disableRTS(int comport_number)
{
    if (validPort(comport_number))
        changeModemLine(comport_number, TIOCM_RTS, false);
}
