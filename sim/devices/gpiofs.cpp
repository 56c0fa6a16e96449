// gpiofs: the simulated unit's sysfs GPIO, a FUSE file system with the kernel's rules.
//
//   gpiofs MOUNTPOINT [--journal FILE] [--pins N,N,...] [--input PIN=LEVEL]... [--script FILE]
//
// MOUNTPOINT gets three things:
//   sysfs/         what the unit sees as /sys/class/gpio (tovsim binds it there): "export",
//                  "unexport" and one folder gpioN per exported pin with "direction" and "value".
//   pins/N         one file per pin of the board: reading gives the level its value file shows
//                  (the driven level of an output, the electrical level of an input); writing a
//                  number sets the electrical level the pin reads while it is an input.
//   state          one line per pin: "PIN DIRECTION LEVEL", then " exported" while exported.
//   accesses       the number of requests made under sysfs/ so far.
// Each export, unexport, direction and value write, each input level change, and the first read of
// a value file after its pin's export append one line to the journal (see journal() below). The file system stays up until it is unmounted or the
// process gets SIGTERM, SIGINT or SIGHUP.
//
// This program is the board's stand-in: it shares no code with the bench it serves.
#define FUSE_USE_VERSION 31

#include <fuse.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// The ten pins of the TOV board, in the order the board's documentation lists them.
const char* const kBoardPins = "138,135,136,230,232,200,201,202,41,42";
// Inputs idle high (pull-ups): the bench reads an idle input as 0.
const long kDefaultInputLevel = 1;

struct Pin {
    bool exported = false;
    bool readSinceExport = false;  // later reads go unjournaled: the bench polls its inputs tightly
    bool output = false;  // the kernel's default direction for a line nobody configured
    long inputLevel = kDefaultInputLevel;
    long outputLevel = 0;
    long level() const { return output ? outputLevel : inputLevel; }
};

// One timed level change of a scenario.
struct Change {
    bool afterFirstExport;
    double seconds;
    int pin;
    long level;
};

struct Emulator {
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<int> order;     // pins in the order given
    std::map<int, Pin> pins;
    int journalFd = -1;
    unsigned long accesses = 0;
    Clock::time_point started = Clock::now();
    bool exportSeen = false;
    Clock::time_point firstExport;
    bool stopping = false;
    std::vector<Change> script;
};

Emulator g;

// ---------------------------------------------------------------------------------------------
// Parsing, with the kernel's leniency: surrounding blanks and one trailing line end are fine.

bool parseLong(const std::string& text, int base, long& value)
{
    const char* begin = text.c_str();
    while (*begin == ' ' || *begin == '\t')
        ++begin;
    if (*begin == '\0')
        return false;
    char* end = nullptr;
    errno = 0;
    value = strtol(begin, &end, base);
    if (errno != 0 || end == begin)
        return false;
    while (*end == ' ' || *end == '\t' || *end == '\n')
        ++end;
    return *end == '\0';
}

bool parsePinLevel(const std::string& text, int& pin, long& level)
{
    const size_t eq = text.find('=');
    long number;
    if (eq == std::string::npos || !parseLong(text.substr(0, eq), 10, number) || number < 0 ||
        number > INT_MAX || !parseLong(text.substr(eq + 1), 10, level))
        return false;
    pin = static_cast<int>(number);
    return true;
}

// "in", "out", "high", "low", as sysfs_streq compares them: one trailing line end is ignored.
std::string stripLineEnd(const std::string& text)
{
    if (!text.empty() && text.back() == '\n')
        return text.substr(0, text.size() - 1);
    return text;
}

// ---------------------------------------------------------------------------------------------
// Journal: one line per operation, "OP PIN [ARG] [ERROR]":
//   export 138 / unexport 138 / direction 138 out / value 136 1 / input 202 0 / read 202 1
// A refused write ends with the errno name the writer got (EINVAL, EBUSY, EPERM); a refused export
// or unexport of text that is no number shows that text instead of PIN.

void journal(const std::string& line)
{
    if (g.journalFd < 0)
        return;
    const std::string out = line + "\n";
    ssize_t ignored = write(g.journalFd, out.data(), out.size());
    (void)ignored;
}

std::string printable(const std::string& text)
{
    std::string out = stripLineEnd(text);
    for (char& c : out) {
        if (c == ' ' || c == '\n' || static_cast<unsigned char>(c) < 0x20)
            c = '_';
    }
    return out.empty() ? "\"\"" : out;
}

// ---------------------------------------------------------------------------------------------
// Paths.

enum class Kind { None, Root, SysDir, Export, Unexport, PinDir, Direction, Value, PinsDir, PinLevel,
                  State, Accesses };

struct Node {
    Kind kind = Kind::None;
    int pin = -1;
    bool underSysfs = false;
};

bool parsePinName(const std::string& text, int& pin)
{
    if (text.empty() || text.size() > 9 || (text.size() > 1 && text[0] == '0'))
        return false;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
    }
    pin = atoi(text.c_str());
    return true;
}

// Resolves PATH against the current state; call with the mutex held.
Node resolve(const std::string& path)
{
    Node node;
    std::vector<std::string> parts;
    std::stringstream stream(path);
    std::string part;
    while (std::getline(stream, part, '/')) {
        if (!part.empty())
            parts.push_back(part);
    }
    if (parts.empty()) {
        node.kind = Kind::Root;
        return node;
    }
    if (parts[0] == "sysfs") {
        node.underSysfs = true;
        if (parts.size() == 1) {
            node.kind = Kind::SysDir;
        } else if (parts.size() == 2 && parts[1] == "export") {
            node.kind = Kind::Export;
        } else if (parts.size() == 2 && parts[1] == "unexport") {
            node.kind = Kind::Unexport;
        } else if (parts[1].compare(0, 4, "gpio") == 0 && parts.size() <= 3) {
            int pin;
            auto found = g.pins.end();
            if (parsePinName(parts[1].substr(4), pin))
                found = g.pins.find(pin);
            if (found == g.pins.end() || !found->second.exported)
                return node;
            node.pin = pin;
            if (parts.size() == 2)
                node.kind = Kind::PinDir;
            else if (parts[2] == "direction")
                node.kind = Kind::Direction;
            else if (parts[2] == "value")
                node.kind = Kind::Value;
        }
        return node;
    }
    if (parts.size() == 1 && parts[0] == "pins")
        node.kind = Kind::PinsDir;
    else if (parts.size() == 1 && parts[0] == "state")
        node.kind = Kind::State;
    else if (parts.size() == 1 && parts[0] == "accesses")
        node.kind = Kind::Accesses;
    else if (parts.size() == 2 && parts[0] == "pins") {
        int pin;
        if (parsePinName(parts[1], pin) && g.pins.count(pin)) {
            node.kind = Kind::PinLevel;
            node.pin = pin;
        }
    }
    return node;
}

Node resolveCounted(const char* path)
{
    Node node = resolve(path);
    if (node.underSysfs && node.kind != Kind::SysDir)
        ++g.accesses;
    return node;
}

bool isDir(Kind kind)
{
    return kind == Kind::Root || kind == Kind::SysDir || kind == Kind::PinDir || kind == Kind::PinsDir;
}

std::string stateText()
{
    std::string text;
    for (int number : g.order) {
        const Pin& pin = g.pins[number];
        text += std::to_string(number) + (pin.output ? " out " : " in ") + std::to_string(pin.level()) +
                (pin.exported ? " exported\n" : "\n");
    }
    return text;
}

// What reading the node gives; false for write-only attributes.
bool readText(const Node& node, std::string& text)
{
    switch (node.kind) {
    case Kind::Direction: text = g.pins[node.pin].output ? "out\n" : "in\n"; return true;
    case Kind::Value:
    case Kind::PinLevel: text = std::to_string(g.pins[node.pin].level()) + "\n"; return true;
    case Kind::State: text = stateText(); return true;
    case Kind::Accesses: text = std::to_string(g.accesses) + "\n"; return true;
    default: return false;
    }
}

bool writable(Kind kind)
{
    return kind == Kind::Export || kind == Kind::Unexport || kind == Kind::Direction ||
           kind == Kind::Value || kind == Kind::PinLevel;
}

// ---------------------------------------------------------------------------------------------
// The kernel's rules for the attributes. Each returns 0 or a negative errno.

int doExport(const std::string& text)
{
    long number;
    if (!parseLong(text, 0, number)) {
        journal("export " + printable(text) + " EINVAL");
        return -EINVAL;
    }
    auto found = number >= 0 && number <= INT_MAX ? g.pins.find(static_cast<int>(number)) : g.pins.end();
    if (found == g.pins.end()) {
        journal("export " + std::to_string(number) + " EINVAL");
        return -EINVAL;
    }
    if (found->second.exported) {
        journal("export " + std::to_string(number) + " EBUSY");
        return -EBUSY;
    }
    found->second.exported = true;
    found->second.readSinceExport = false;
    if (!g.exportSeen) {
        g.exportSeen = true;
        g.firstExport = Clock::now();
        g.wake.notify_all();
    }
    journal("export " + std::to_string(number));
    return 0;
}

int doUnexport(const std::string& text)
{
    long number;
    if (!parseLong(text, 0, number)) {
        journal("unexport " + printable(text) + " EINVAL");
        return -EINVAL;
    }
    auto found = number >= 0 && number <= INT_MAX ? g.pins.find(static_cast<int>(number)) : g.pins.end();
    if (found == g.pins.end() || !found->second.exported) {
        journal("unexport " + std::to_string(number) + " EINVAL");
        return -EINVAL;
    }
    found->second.exported = false;
    journal("unexport " + std::to_string(number));
    return 0;
}

int doDirection(int number, const std::string& text)
{
    Pin& pin = g.pins[number];
    const std::string word = stripLineEnd(text);
    const std::string prefix = "direction " + std::to_string(number) + " ";
    if (word == "in") {
        pin.output = false;
    } else if (word == "out" || word == "low") {
        pin.output = true;
        pin.outputLevel = 0;
    } else if (word == "high") {
        pin.output = true;
        pin.outputLevel = 1;
    } else {
        journal(prefix + printable(text) + " EINVAL");
        return -EINVAL;
    }
    journal(prefix + word);
    return 0;
}

int doValue(int number, const std::string& text)
{
    Pin& pin = g.pins[number];
    const std::string prefix = "value " + std::to_string(number) + " ";
    long value;
    if (!pin.output) {
        journal(prefix + printable(text) + " EPERM");
        return -EPERM;
    }
    if (!parseLong(text, 0, value)) {
        journal(prefix + printable(text) + " EINVAL");
        return -EINVAL;
    }
    pin.outputLevel = value != 0 ? 1 : 0;
    journal(prefix + std::to_string(pin.outputLevel));
    return 0;
}

void setInputLevel(int number, long level)
{
    g.pins[number].inputLevel = level;
    journal("input " + std::to_string(number) + " " + std::to_string(level));
}

int doPinLevel(int number, const std::string& text)
{
    long level;
    if (!parseLong(text, 10, level))
        return -EINVAL;
    setInputLevel(number, level);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// FUSE operations.

void* fsInit(struct fuse_conn_info*, struct fuse_config* cfg)
{
    // Nothing may be cached: the bench must see an export, a level change or a removal at once.
    cfg->entry_timeout = 0;
    cfg->attr_timeout = 0;
    cfg->negative_timeout = 0;
    cfg->direct_io = 1;
    return nullptr;
}

int fsGetattr(const char* path, struct stat* st, struct fuse_file_info*)
{
    std::lock_guard<std::mutex> lock(g.mutex);
    const Node node = resolveCounted(path);
    if (node.kind == Kind::None)
        return -ENOENT;
    memset(st, 0, sizeof(*st));
    if (isDir(node.kind)) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
    } else {
        mode_t mode = 0644;
        if (node.kind == Kind::Export || node.kind == Kind::Unexport)
            mode = 0200;
        else if (node.kind == Kind::State || node.kind == Kind::Accesses)
            mode = 0444;
        st->st_mode = S_IFREG | mode;
        st->st_nlink = 1;
        st->st_size = 4096;  // as sysfs reports every attribute
    }
    return 0;
}

int fsReaddir(const char* path, void* buf, fuse_fill_dir_t filler, off_t, struct fuse_file_info*,
              enum fuse_readdir_flags)
{
    std::lock_guard<std::mutex> lock(g.mutex);
    const Node node = resolve(path);
    if (node.underSysfs)
        ++g.accesses;
    std::vector<std::string> names;
    switch (node.kind) {
    case Kind::Root: names = {"sysfs", "pins", "state", "accesses"}; break;
    case Kind::SysDir:
        names = {"export", "unexport"};
        for (const auto& entry : g.pins) {
            if (entry.second.exported)
                names.push_back("gpio" + std::to_string(entry.first));
        }
        break;
    case Kind::PinDir: names = {"direction", "value"}; break;
    case Kind::PinsDir:
        for (int number : g.order)
            names.push_back(std::to_string(number));
        break;
    case Kind::None: return -ENOENT;
    default: return -ENOTDIR;
    }
    filler(buf, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    filler(buf, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    for (const std::string& name : names)
        filler(buf, name.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    return 0;
}

int fsOpen(const char* path, struct fuse_file_info* fi)
{
    std::lock_guard<std::mutex> lock(g.mutex);
    const Node node = resolveCounted(path);
    if (node.kind == Kind::None)
        return -ENOENT;
    const int mode = fi->flags & O_ACCMODE;
    std::string ignored;
    if ((mode != O_WRONLY && !readText(node, ignored)) || (mode != O_RDONLY && !writable(node.kind)))
        return -EACCES;
    fi->direct_io = 1;
    return 0;
}

int fsRead(const char* path, char* buf, size_t size, off_t offset, struct fuse_file_info*)
{
    std::lock_guard<std::mutex> lock(g.mutex);
    const Node node = resolveCounted(path);
    std::string text;
    if (node.kind == Kind::None)
        return -ENODEV;  // the pin was unexported while open, as sysfs reports it
    if (!readText(node, text))
        return -EIO;
    if (node.kind == Kind::Value && !g.pins[node.pin].readSinceExport) {
        g.pins[node.pin].readSinceExport = true;
        journal("read " + std::to_string(node.pin) + " " + stripLineEnd(text));
    }
    if (offset < 0 || static_cast<size_t>(offset) >= text.size())
        return 0;
    const size_t count = std::min(size, text.size() - static_cast<size_t>(offset));
    memcpy(buf, text.data() + offset, count);
    return static_cast<int>(count);
}

int fsWrite(const char* path, const char* buf, size_t size, off_t, struct fuse_file_info*)
{
    std::lock_guard<std::mutex> lock(g.mutex);
    const Node node = resolveCounted(path);
    const std::string text(buf, size);
    int result;
    switch (node.kind) {
    case Kind::Export: result = doExport(text); break;
    case Kind::Unexport: result = doUnexport(text); break;
    case Kind::Direction: result = doDirection(node.pin, text); break;
    case Kind::Value: result = doValue(node.pin, text); break;
    case Kind::PinLevel: result = doPinLevel(node.pin, text); break;
    case Kind::None: return -ENODEV;
    default: return -EIO;
    }
    return result < 0 ? result : static_cast<int>(size);
}

// std::ofstream opens with O_TRUNC; sysfs attributes accept the truncation and ignore it.
int fsTruncate(const char* path, off_t, struct fuse_file_info*)
{
    std::lock_guard<std::mutex> lock(g.mutex);
    const Node node = resolveCounted(path);
    if (node.kind == Kind::None)
        return -ENOENT;
    if (isDir(node.kind))
        return -EISDIR;
    return writable(node.kind) ? 0 : -EACCES;
}

// sysfs has no way to create or remove entries by hand.
int fsCreate(const char*, mode_t, struct fuse_file_info*)
{
    return -EACCES;
}

int fsMkdir(const char*, mode_t)
{
    return -EPERM;
}

int fsRemove(const char*)
{
    return -EPERM;
}

int fsRename(const char*, const char*, unsigned int)
{
    return -EPERM;
}

// ---------------------------------------------------------------------------------------------
// Timed level changes.

void runScript()
{
    std::unique_lock<std::mutex> lock(g.mutex);
    for (const Change& change : g.script) {
        if (change.afterFirstExport)
            g.wake.wait(lock, [] { return g.stopping || g.exportSeen; });
        if (g.stopping)
            return;
        const Clock::time_point base = change.afterFirstExport ? g.firstExport : g.started;
        const auto when = base + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(change.seconds));
        g.wake.wait_until(lock, when, [] { return g.stopping; });
        if (g.stopping)
            return;
        setInputLevel(change.pin, change.level);
    }
}

// Script lines: "TIME PIN=LEVEL..." where TIME is seconds since start ("1.5") or since the first
// export ("export+1.5"); '#' starts a comment. Changes apply in the order of the file.
bool loadScript(const std::string& path)
{
    std::ifstream in(path);
    if (!in.is_open()) {
        fprintf(stderr, "gpiofs: cannot read the script '%s'\n", path.c_str());
        return false;
    }
    std::string line;
    int lineNumber = 0;
    while (std::getline(in, line)) {
        ++lineNumber;
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::string time, word;
        if (!(words >> time))
            continue;
        Change change{};
        change.afterFirstExport = time.compare(0, 7, "export+") == 0;
        if (change.afterFirstExport)
            time = time.substr(7);
        char* end = nullptr;
        change.seconds = strtod(time.c_str(), &end);
        bool ok = !time.empty() && *end == '\0' && change.seconds >= 0;
        bool any = false;
        while (ok && words >> word) {
            ok = parsePinLevel(word, change.pin, change.level) && g.pins.count(change.pin);
            if (ok)
                g.script.push_back(change);
            any = true;
        }
        if (!ok || !any) {
            fprintf(stderr, "gpiofs: %s:%d: expected \"SECONDS PIN=LEVEL...\" or "
                            "\"export+SECONDS PIN=LEVEL...\" with pins of the board\n",
                    path.c_str(), lineNumber);
            return false;
        }
    }
    return true;
}

bool loadPins(const std::string& list)
{
    std::stringstream stream(list);
    std::string item;
    while (std::getline(stream, item, ',')) {
        int pin;
        if (!parsePinName(item, pin)) {
            fprintf(stderr, "gpiofs: '%s' is no pin number\n", item.c_str());
            return false;
        }
        if (!g.pins.count(pin))
            g.order.push_back(pin);
        g.pins[pin] = Pin();
    }
    return true;
}

int usage()
{
    fprintf(stderr, "usage: gpiofs MOUNTPOINT [--journal FILE] [--pins N,N,...] "
                    "[--input PIN=LEVEL]... [--script FILE]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return usage();
    const std::string mountPoint = argv[1];
    std::string pinList = kBoardPins, journalPath, scriptPath;
    std::vector<std::string> inputs;
    for (int i = 2; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 >= argc)
            return usage();
        const std::string value = argv[++i];
        if (option == "--journal")
            journalPath = value;
        else if (option == "--pins")
            pinList = value;
        else if (option == "--input")
            inputs.push_back(value);
        else if (option == "--script")
            scriptPath = value;
        else
            return usage();
    }
    if (!loadPins(pinList))
        return 2;
    for (const std::string& input : inputs) {
        int pin;
        long level;
        if (!parsePinLevel(input, pin, level) || !g.pins.count(pin)) {
            fprintf(stderr, "gpiofs: '%s' is no PIN=LEVEL of a pin of the board\n", input.c_str());
            return 2;
        }
        g.pins[pin].inputLevel = level;
    }
    if (!scriptPath.empty() && !loadScript(scriptPath))
        return 2;
    if (!journalPath.empty()) {
        g.journalFd = open(journalPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (g.journalFd < 0) {
            perror(journalPath.c_str());
            return 2;
        }
    }

    struct fuse_operations ops = {};
    ops.init = fsInit;
    ops.getattr = fsGetattr;
    ops.readdir = fsReaddir;
    ops.open = fsOpen;
    ops.read = fsRead;
    ops.write = fsWrite;
    ops.truncate = fsTruncate;
    ops.create = fsCreate;
    ops.mkdir = fsMkdir;
    ops.unlink = fsRemove;
    ops.rmdir = fsRemove;
    ops.rename = fsRename;

    char arg0[] = "gpiofs";
    char optFlag[] = "-o";
    char optValue[] = "fsname=gpiofs,subtype=gpiofs";
    char* fuseArgv[] = {arg0, optFlag, optValue, nullptr};
    struct fuse_args args = FUSE_ARGS_INIT(3, fuseArgv);
    struct fuse* fuse = fuse_new(&args, &ops, sizeof(ops), nullptr);
    fuse_opt_free_args(&args);
    if (fuse == nullptr)
        return 1;
    int status = 1;
    if (fuse_mount(fuse, mountPoint.c_str()) == 0) {
        if (fuse_set_signal_handlers(fuse_get_session(fuse)) == 0) {
            g.started = Clock::now();
            // The stop signals must reach the thread that waits on the FUSE device, so that its
            // read is interrupted: the script thread runs with them blocked.
            sigset_t stops, previous;
            sigemptyset(&stops);
            sigaddset(&stops, SIGTERM);
            sigaddset(&stops, SIGINT);
            sigaddset(&stops, SIGHUP);
            pthread_sigmask(SIG_BLOCK, &stops, &previous);
            std::thread script(runScript);
            pthread_sigmask(SIG_SETMASK, &previous, nullptr);
            // A stop signal ends the loop with that signal's number: a clean end too.
            status = fuse_loop(fuse) < 0 ? 1 : 0;
            {
                std::lock_guard<std::mutex> lock(g.mutex);
                g.stopping = true;
            }
            g.wake.notify_all();
            script.join();
            fuse_remove_signal_handlers(fuse_get_session(fuse));
        }
        fuse_unmount(fuse);
    }
    fuse_destroy(fuse);
    if (g.journalFd >= 0)
        close(g.journalFd);
    return status;
}
