// Measurement module on the simulated unit's RS-485 bus: holds the master side of a pty whose
// slave the unit sees as its serial port, and answers as a first- or second-generation module,
// byte by byte at the line's baud rate like the real wire. Frames and checksums are written here
// from the module's side, independently of the unit's drivers.
//
//   module_emulator --scenario NAME [--values LIST] [--fault SENSOR] [--version V] [--baud B]
//                   [--seed N] [--ready FILE] [--log FILE]
//
// Scenarios: none (silent), v1, v1-echo, v1-bad-header, v1-init-only, v1-cut, v2, v2-faulty,
// v2-unconfigured, v2-cut, noise. --values: for V1 the five 5-digit fields, for V2 up to seven
// floats, comma-separated. --fault (V2): the one sensor that reports its fault marker: weight,
// pressure, inlet, outlet or outside, the module's values 0 to 4. --ready receives the pty slave's path once the port is ready; --log
// gets one line per request heard ("request HEX", "garbled HEX" when the line speed is not the
// module's, "unknown HEX" for bytes that make no request) and per answer ("answer HEX").
//
// While it runs, SIGUSR1 makes every sensor of a V2 module report its fault marker (a probe pulled
// off the module), SIGUSR2 brings back the values it started with; each logs "sensors faulty" or
// "sensors as started".
#include <fcntl.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// What sets each scenario apart from a plain module of its generation.
enum Quirk : unsigned {
    kCut = 1,           // every answer stops halfway
    kEcho = 2,          // V1: the poll comes back in front of the answer
    kBadHeader = 4,     // V1: wrong first byte
    kInitOnly = 8,      // V1: answers the first poll only
    kAllFaulty = 16,    // V2: every sensor reports its fault marker
    kUnconfigured = 32, // V2: holds no configuration
    kNoise = 64,        // random bytes after each request, whatever it was
};

struct Scenario {
    const char* name;
    int generation; // 0: no module
    unsigned quirks;
};

const Scenario kScenarios[] = {
    {"none", 0, 0},
    {"v1", 1, 0},
    {"v1-echo", 1, kEcho},
    {"v1-bad-header", 1, kBadHeader},
    {"v1-init-only", 1, kInitOnly},
    {"v1-cut", 1, kCut},
    {"v2", 2, 0},
    {"v2-faulty", 2, kAllFaulty},
    {"v2-unconfigured", 2, kUnconfigured},
    {"v2-cut", 2, kCut},
    {"noise", 0, kNoise},
};

// The sensors of a V2 data record, in its order, and what each reports when it is faulty.
struct Sensor {
    const char* name;
    float marker;
};
const Sensor kSensors[] = {
    {"weight", -999.0f}, {"pressure", 999.0f}, {"inlet", 999.0f}, {"outlet", 999.0f},
    {"outside", 999.0f},
};
const int kSensorCount = static_cast<int>(sizeof kSensors / sizeof kSensors[0]);

struct Options {
    std::string scenario = "none";
    std::string values;
    std::string fault;
    float version = 2.5f;
    int baud = 0; // 0: 2400 for V1, 9600 for V2
    unsigned seed = 1;
    std::string ready;
    std::string log;
};

struct Module {
    Options opt;
    const Scenario* sc = nullptr;
    bool v1 = false;
    bool v2 = false;
    int polls = 0;
    int slave = -1;
    int master = -1;
    FILE* log = nullptr;
    std::mt19937 random;
    // V2 state
    uint8_t configured = 1;
    Bytes config;
    float datas[7] = {};
    float started[7] = {}; // datas as the options set them, for SIGUSR2
    std::string v1Fields[5] = {"00500", "07410", "06500", "08000", "12000"};
    Bytes garbled; // heard at a speed not the module's, since the last silence
    Bytes unknown; // heard at the right speed but not a request
};

// CRC-16/XMODEM, bit by bit.
uint16_t crc16(const uint8_t* data, size_t len)
{
    uint16_t crc = 0;
    for (size_t i = 0; i < len; ++i) {
        crc ^= static_cast<uint16_t>(data[i] << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021)
                                 : static_cast<uint16_t>(crc << 1);
    }
    return crc;
}

std::string hex(const Bytes& bytes)
{
    std::string text;
    char part[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        snprintf(part, sizeof part, i ? " %02x" : "%02x", bytes[i]);
        text += part;
    }
    return text;
}

void logLine(Module& m, const char* what, const Bytes& bytes)
{
    if (m.log == nullptr)
        return;
    fprintf(m.log, "%s %s\n", what, hex(bytes).c_str());
    fflush(m.log);
}

int speedToBaud(speed_t speed)
{
    switch (speed) {
    case B1200: return 1200;
    case B2400: return 2400;
    case B4800: return 4800;
    case B9600: return 9600;
    case B19200: return 19200;
    case B38400: return 38400;
    case B57600: return 57600;
    case B115200: return 115200;
    default: return 0;
    }
}

speed_t baudToSpeed(int baud)
{
    switch (baud) {
    case 2400: return B2400;
    case 4800: return B4800;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    default: return B9600;
    }
}

// The speed the unit set on its side of the line.
int lineBaud(const Module& m)
{
    struct termios tio;
    if (tcgetattr(m.slave, &tio) != 0)
        return 0;
    return speedToBaud(cfgetospeed(&tio));
}

void sleepUs(long us)
{
    struct timespec ts = {us / 1000000, (us % 1000000) * 1000};
    while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
    }
}

// Writes bytes at the wire's pace: 10 bits per byte (start, 8 data, stop).
void transmit(Module& m, const Bytes& bytes)
{
    const int baud = lineBaud(m) > 0 ? lineBaud(m) : 9600;
    const long byteUs = 10000000L / baud;
    sleepUs(2000); // the module's turnaround
    logLine(m, "answer", bytes);
    for (uint8_t byte : bytes) {
        sleepUs(byteUs);
        if (write(m.master, &byte, 1) != 1)
            return;
    }
}

void putFloat(Bytes& out, float value)
{
    uint8_t raw[4];
    memcpy(raw, &value, 4);
    out.insert(out.end(), raw, raw + 4);
}

void putInt(Bytes& out, int32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>((static_cast<uint32_t>(value) >> (8 * i)) & 0xFF));
}

Bytes v2Frame(uint8_t cmd, const Bytes& payload)
{
    Bytes frame = {0x01, static_cast<uint8_t>(payload.size() & 0xFF),
                   static_cast<uint8_t>(payload.size() >> 8), cmd};
    const uint16_t crc = crc16(payload.data(), payload.size());
    frame.push_back(static_cast<uint8_t>(crc & 0xFF));
    frame.push_back(static_cast<uint8_t>(crc >> 8));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Bytes moduleConfig()
{
    Bytes config = {1, 1, 3};
    const float settings[11] = {18.5f, 2.5f, 0.0f, 25.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    for (float f : settings)
        putFloat(config, f);
    putInt(config, 2400);
    putInt(config, 9600);
    return config;
}

Bytes v1Answer(const Module& m)
{
    Bytes answer = {0x01, 0x02};
    for (int i = 0; i < 5; ++i) {
        std::string field = m.v1Fields[i];
        field.resize(5, '0');
        answer.insert(answer.end(), field.begin(), field.end());
        if (i < 4)
            answer.push_back(';');
    }
    answer.push_back('\r');
    answer.push_back('\n');
    return answer; // 33 bytes
}

// The answer a V2 module gives to a request, or nothing.
Bytes v2Answer(Module& m, uint8_t cmd, const Bytes& payload)
{
    switch (cmd) {
    case 12: {
        Bytes info = {m.configured};
        putFloat(info, m.opt.version);
        return v2Frame(11, info);
    }
    case 13: {
        Bytes data;
        for (float f : m.datas)
            putFloat(data, f);
        return v2Frame(13, data);
    }
    case 14:
        return v2Frame(14, m.config);
    case 15:
        if (payload.size() != 55)
            return {};
        m.config = payload;
        m.configured = 1;
        return v2Frame(15, {0});
    case 16: case 17: case 18: case 21:
        return v2Frame(cmd, {0});
    case 19: case 20: case 22:
        return v2Frame(25, {0});
    case 27:
        return v2Frame(27, {0xFF, 0, 0, 0, 0, 0});
    default:
        return {};
    }
}

int moduleBaud(const Module& m)
{
    return m.opt.baud ? m.opt.baud : (m.v1 ? 2400 : 9600);
}

bool has(const Module& m, Quirk quirk)
{
    return (m.sc->quirks & quirk) != 0;
}

void answer(Module& m, Bytes reply)
{
    if (reply.empty())
        return;
    if (has(m, kCut))
        reply.resize(reply.size() / 2);
    transmit(m, reply);
}

void onV1Poll(Module& m, const Bytes& request)
{
    logLine(m, "request", request);
    ++m.polls;
    if (has(m, kInitOnly) && m.polls > 1)
        return;
    Bytes reply = v1Answer(m);
    if (has(m, kEcho)) {
        Bytes echo = {0x01, 0x02, 0x39, 0x0D, 0x00};
        echo.insert(echo.end(), reply.begin(), reply.begin() + 28);
        reply = echo;
    } else if (has(m, kBadHeader)) {
        reply[0] = 0x03;
    }
    answer(m, reply);
}

// Takes whole requests off the front of buf; leaves an incomplete one in place.
void consumeV1(Module& m, Bytes& buf)
{
    static const uint8_t poll[4] = {0x01, 0x02, 0x39, 0x0D};
    for (;;) {
        size_t i = 0;
        while (i + 4 <= buf.size() && memcmp(buf.data() + i, poll, 4) != 0)
            ++i;
        if (i + 4 > buf.size()) {
            if (buf.size() > 3) {
                m.unknown.insert(m.unknown.end(), buf.begin(), buf.end() - 3);
                buf.erase(buf.begin(), buf.end() - 3);
            }
            return;
        }
        m.unknown.insert(m.unknown.end(), buf.begin(), buf.begin() + static_cast<long>(i));
        size_t end = i + 4;
        if (end < buf.size() && buf[end] == 0x00)
            ++end;
        Bytes request(buf.begin() + static_cast<long>(i), buf.begin() + static_cast<long>(end));
        buf.erase(buf.begin(), buf.begin() + static_cast<long>(end));
        onV1Poll(m, request);
    }
}

void consumeV2(Module& m, Bytes& buf)
{
    while (buf.size() >= 6) {
        const size_t n = buf[1] | (buf[2] << 8);
        if (buf[0] != 0x01 || n > 255) {
            m.unknown.push_back(buf[0]);
            buf.erase(buf.begin());
            continue;
        }
        if (buf.size() < 6 + n)
            return;
        const uint16_t crc = static_cast<uint16_t>(buf[4] | (buf[5] << 8));
        if (crc != crc16(buf.data() + 6, n)) {
            m.unknown.push_back(buf[0]);
            buf.erase(buf.begin());
            continue;
        }
        const uint8_t cmd = buf[3];
        Bytes payload(buf.begin() + 6, buf.begin() + 6 + static_cast<long>(n));
        size_t end = 6 + n;
        if (end < buf.size() && buf[end] == 0x00)
            ++end; // the zero byte the unit sends after each request
        Bytes request(buf.begin(), buf.begin() + static_cast<long>(end));
        buf.erase(buf.begin(), buf.begin() + static_cast<long>(end));
        logLine(m, "request", request);
        answer(m, v2Answer(m, cmd, payload));
    }
}

void noiseBurst(Module& m, const Bytes& heard)
{
    logLine(m, "request", heard);
    std::uniform_int_distribution<int> length(1, 80), byte(0, 255), kind(0, 3);
    Bytes noise(static_cast<size_t>(length(m.random)));
    for (auto& b : noise)
        b = static_cast<uint8_t>(byte(m.random));
    // Now and then a frame that looks right at first sight: address and header, lying length.
    if (kind(m.random) == 0 && noise.size() >= 6) {
        noise[0] = 0x01;
        noise[1] = static_cast<uint8_t>(noise.size() - 6 + 1);
        noise[2] = 0;
    }
    transmit(m, noise);
}

bool parseValues(Module& m)
{
    if (m.opt.values.empty())
        return true;
    std::stringstream list(m.opt.values);
    std::string item;
    int i = 0;
    while (std::getline(list, item, ',')) {
        if (m.v1) {
            if (i >= 5 || item.size() != 5)
                return false;
            m.v1Fields[i] = item;
        } else {
            if (i >= 7)
                return false;
            char* end = nullptr;
            m.datas[i] = strtof(item.c_str(), &end);
            if (end == item.c_str() || *end != '\0')
                return false;
        }
        ++i;
    }
    return true;
}

// Index of the sensor named name in kSensors, or -1.
int sensorIndex(const std::string& name)
{
    for (int i = 0; i < kSensorCount; ++i)
        if (name == kSensors[i].name)
            return i;
    return -1;
}

bool setup(Module& m)
{
    for (const Scenario& scenario : kScenarios)
        if (m.opt.scenario == scenario.name)
            m.sc = &scenario;
    if (m.sc == nullptr) {
        fprintf(stderr, "module_emulator: unknown scenario '%s'\n", m.opt.scenario.c_str());
        return false;
    }
    m.v1 = m.sc->generation == 1;
    m.v2 = m.sc->generation == 2;
    m.random.seed(m.opt.seed);
    m.config = moduleConfig();
    const float healthy[7] = {125.5f, 12.25f, 21.5f, 35.75f, 8.5f, 0.0f, 0.0f};
    memcpy(m.datas, healthy, sizeof healthy);
    for (int i = 0; has(m, kAllFaulty) && i < kSensorCount; ++i)
        m.datas[i] = kSensors[i].marker;
    if (has(m, kUnconfigured)) {
        m.configured = 0;
        m.config[1] = 0;
    }
    if (!parseValues(m)) {
        fprintf(stderr, "module_emulator: bad --values '%s'\n", m.opt.values.c_str());
        return false;
    }
    if (!m.opt.fault.empty()) {
        const int sensor = sensorIndex(m.opt.fault);
        if (sensor < 0 || !m.v2) {
            fprintf(stderr, "module_emulator: --fault takes a sensor of a V2 module, not '%s'\n",
                    m.opt.fault.c_str());
            return false;
        }
        m.datas[sensor] = kSensors[sensor].marker;
    }
    memcpy(m.started, m.datas, sizeof m.datas);

    m.master = posix_openpt(O_RDWR | O_NOCTTY);
    if (m.master < 0 || grantpt(m.master) != 0 || unlockpt(m.master) != 0) {
        perror("module_emulator: pty");
        return false;
    }
    const char* slaveName = ptsname(m.master);
    // Our own slave descriptor keeps the master readable while the unit has the port closed,
    // and lets us read the speed the unit sets.
    m.slave = slaveName ? open(slaveName, O_RDWR | O_NOCTTY) : -1;
    if (m.slave < 0) {
        perror("module_emulator: slave");
        return false;
    }
    struct termios tio;
    tcgetattr(m.slave, &tio);
    cfmakeraw(&tio);
    const int baud = moduleBaud(m);
    cfsetispeed(&tio, baudToSpeed(baud));
    cfsetospeed(&tio, baudToSpeed(baud));
    tcsetattr(m.slave, TCSANOW, &tio);

    if (!m.opt.log.empty())
        m.log = fopen(m.opt.log.c_str(), "a");
    if (!m.opt.ready.empty()) {
        const std::string tmp = m.opt.ready + ".tmp";
        FILE* f = fopen(tmp.c_str(), "w");
        if (f == nullptr)
            return false;
        fprintf(f, "%s\n", slaveName);
        fclose(f);
        rename(tmp.c_str(), m.opt.ready.c_str());
    }
    return true;
}

// Takes SIGUSR1 and SIGUSR2 from now on, through a descriptor read beside the line's: blocked
// before the port is announced, a signal sent as soon as the port is ready does not end the module,
// and one sent before a request is taken before that request is answered.
int takeSensorSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
}

// Two signals that wait together are read in their numbers' order: SIGUSR1 first.
void applySensorSignals(Module& m, int signals)
{
    struct signalfd_siginfo info;
    while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        const bool faulty = info.ssi_signo == SIGUSR1;
        memcpy(m.datas, m.started, sizeof m.datas);
        for (int i = 0; faulty && i < kSensorCount; ++i)
            m.datas[i] = kSensors[i].marker;
        if (m.log != nullptr) {
            fprintf(m.log, "%s\n", faulty ? "sensors faulty" : "sensors as started");
            fflush(m.log);
        }
    }
}

void run(Module& m, int signals)
{
    Bytes buf;
    bool pending = false;
    for (;;) {
        struct pollfd fds[2] = {{m.master, POLLIN, 0}, {signals, POLLIN, 0}};
        const int ready = poll(fds, signals >= 0 ? 2 : 1, pending ? 20 : -1);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (fds[1].revents & POLLIN)
            applySensorSignals(m, signals);
        if (fds[0].revents != 0) {
            uint8_t chunk[256];
            const ssize_t n = read(m.master, chunk, sizeof chunk);
            if (n <= 0) {
                sleepUs(10000);
                continue;
            }
            pending = true;
            if ((m.v1 || m.v2) && lineBaud(m) != moduleBaud(m)) {
                // What a module hears from a line at another speed is garbage: no answer.
                m.garbled.insert(m.garbled.end(), chunk, chunk + n);
                continue;
            }
            buf.insert(buf.end(), chunk, chunk + n);
            if (buf.size() > 4096)
                buf.erase(buf.begin(), buf.end() - 512);
            if (m.v1)
                consumeV1(m, buf);
            else if (m.v2)
                consumeV2(m, buf);
            continue;
        }
        if (ready > 0)
            continue; // a signal only: the line's silence goes on
        // 20 ms of silence ends whatever was heard.
        pending = false;
        if (!m.garbled.empty())
            logLine(m, "garbled", m.garbled);
        m.garbled.clear();
        if (m.v1 || m.v2)
            m.unknown.insert(m.unknown.end(), buf.begin(), buf.end());
        if (!m.unknown.empty())
            logLine(m, "unknown", m.unknown);
        m.unknown.clear();
        if (buf.empty())
            continue;
        if (has(m, kNoise))
            noiseBurst(m, buf);
        else if (m.sc->generation == 0)
            logLine(m, "request", buf);
        buf.clear();
    }
}

} // namespace

int main(int argc, char** argv)
{
    Module m;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (value == nullptr) {
            fprintf(stderr, "module_emulator: %s needs a value\n", arg.c_str());
            return 2;
        }
        if (arg == "--scenario") m.opt.scenario = value;
        else if (arg == "--values") m.opt.values = value;
        else if (arg == "--fault") m.opt.fault = value;
        else if (arg == "--version") m.opt.version = strtof(value, nullptr);
        else if (arg == "--baud") m.opt.baud = atoi(value);
        else if (arg == "--seed") m.opt.seed = static_cast<unsigned>(strtoul(value, nullptr, 10));
        else if (arg == "--ready") m.opt.ready = value;
        else if (arg == "--log") m.opt.log = value;
        else {
            fprintf(stderr, "module_emulator: unknown option %s\n", arg.c_str());
            return 2;
        }
        ++i;
    }
    const int signals = takeSensorSignals();
    if (!setup(m))
        return 1;
    run(m, signals);
    return 0;
}
