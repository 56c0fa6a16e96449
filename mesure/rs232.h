// Table-driven serial ports over the POSIX terminal interface. Ports are numbers (0 =
// "/dev/ttyUSB0", 1 = "/dev/ttySAC1"); results are ints, never exceptions. No locking: each port
// has one owner at a time.
#ifndef TOV_MESURE_RS232_H
#define TOV_MESURE_RS232_H

#include <termios.h>

enum { RS232_PORTNR = 2 };

extern char comports[RS232_PORTNR][16];
extern int Cport[RS232_PORTNR];
extern struct termios old_port_settings[RS232_PORTNR];
extern struct termios new_port_settings;

// 0 on success, 1 on any failure (one message printed). mode is "8N1"-style: data bits 5-8,
// parity N/E/O in either case, stop bits 1 or 2.
int RS232_OpenComport(int comport_number, int baudrate, const char* mode);
// One non-blocking read: its result (0 when nothing waits, -1 on error).
int RS232_PollComport(int comport_number, unsigned char* buf, int size);
// One-byte read into *byte (when not null); the read's result.
int RS232_ReadCharComport(int comport_number, unsigned char* byte);
// 1 when the write returned -1 or the drain failed, else 0 (also when nothing was written).
int RS232_SendByte(int comport_number, unsigned char byte);
// The count written, or 1 when the drain failed or the count is out of range: a successful
// 1-byte send also returns 1, kept as is since callers only compare with their own length.
int RS232_SendBuf(int comport_number, const unsigned char* buf, int size);
void RS232_cputs(int comport_number, const char* text);
void RS232_CloseComport(int comport_number);
int RS232_IsDCDEnabled(int comport_number);
int RS232_IsCTSEnabled(int comport_number);
int RS232_IsDSREnabled(int comport_number);
void RS232_enableDTR(int comport_number);
void RS232_disableDTR(int comport_number);
void RS232_enableRTS(int comport_number);
void RS232_disableRTS(int comport_number);

#endif
