// The radio lab's beacons: holds one virtual controller through an HCI user channel (so that
// bluetoothd never uses it) and puts the family's iBeacon frames on the emulated air.
//
//   quorlix_lab_advertiser --hci N --beacons FILE [--ready FILE] [--sent FILE]
//
// FILE lists the beacons as "MAJOR:MINOR@HZ" words and is read again whenever it changes (empty:
// silence). BlueZ's controller emulator delivers one advertising report each time advertising is
// enabled, not periodically, so each beacon's advert is one enable/disable pair at its rate, from
// a static random address of its own (C0:51:major:minor) so that every beacon is a device of its
// own to bluetoothd. While the controller is held, the ready file exists; when the controller goes
// away (btvirt killed) the program waits for it to come back. The sent file holds how many adverts
// went out so far (rewritten every second), so that a test can tell lost adverts from slow ones.

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// From the kernel's include/net/bluetooth/{bluetooth,hci_sock}.h; libbluetooth-dev is not needed
// for these few.
constexpr int afBluetooth = 31;
constexpr int btprotoHci = 1;
constexpr unsigned short hciChannelUser = 1;
struct SockaddrHci
{
    sa_family_t family;
    unsigned short dev;
    unsigned short channel;
};

using Clock = std::chrono::steady_clock;

struct Beacon
{
    unsigned major = 0;
    unsigned minor = 0;
    double hz = 10;
    Clock::time_point next{};
};

const std::array<std::uint8_t, 16> familyUuid = {0xE1, 0x87, 0x69, 0x79, 0x75, 0xB5, 0x43, 0xDE,
                                                 0x92, 0xCB, 0x2B, 0xC1, 0xAD, 0x6B, 0xA9, 0x99};
constexpr std::int8_t measuredPower = -59;

class Controller
{
public:
    explicit Controller(int fd)
        : m_fd(fd)
    {}
    ~Controller() { close(m_fd); }
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    // Sends one command and waits (bounded) for its completion; false when the controller is gone
    // or refused it.
    bool command(std::uint16_t opcode, const std::vector<std::uint8_t>& params)
    {
        std::vector<std::uint8_t> packet{0x01, std::uint8_t(opcode & 0xff),
                                         std::uint8_t(opcode >> 8), std::uint8_t(params.size())};
        packet.insert(packet.end(), params.begin(), params.end());
        if (write(m_fd, packet.data(), packet.size()) != ssize_t(packet.size()))
            return false;
        const auto deadline = Clock::now() + std::chrono::seconds(2);
        std::array<std::uint8_t, 260> event{};
        while (Clock::now() < deadline) {
            pollfd pfd{m_fd, POLLIN, 0};
            if (poll(&pfd, 1, 200) < 0 || (pfd.revents & (POLLERR | POLLHUP | POLLNVAL)))
                return false;
            if (!(pfd.revents & POLLIN))
                continue;
            const ssize_t n = read(m_fd, event.data(), event.size());
            if (n <= 0)
                return false;
            if (n >= 7 && event[0] == 0x04 && event[1] == 0x0E && event[4] == (opcode & 0xff) &&
                event[5] == (opcode >> 8))
                return event[6] == 0;
            if (n >= 7 && event[0] == 0x04 && event[1] == 0x0F && event[5] == (opcode & 0xff) &&
                event[6] == (opcode >> 8))
                return event[3] == 0;
        }
        return false;
    }

private:
    int m_fd;
};

std::vector<Beacon> readBeacons(const std::string& path)
{
    std::vector<Beacon> beacons;
    std::ifstream in(path);
    std::string word;
    while (in >> word) {
        Beacon beacon;
        char colon = 0, at = 0;
        std::istringstream parts(word);
        if (!(parts >> beacon.major >> colon >> beacon.minor >> at >> beacon.hz) || colon != ':' ||
            at != '@' || beacon.major > 0xffff || beacon.minor > 0xffff || beacon.hz <= 0 ||
            beacon.hz > 100) {
            std::fprintf(stderr, "advertiser: ignoring \"%s\" (expected MAJOR:MINOR@HZ)\n",
                         word.c_str());
            continue;
        }
        beacons.push_back(beacon);
    }
    return beacons;
}

bool advertise(Controller& controller, const Beacon& beacon)
{
    const std::vector<std::uint8_t> address{std::uint8_t(beacon.minor),
                                            std::uint8_t(beacon.minor >> 8),
                                            std::uint8_t(beacon.major),
                                            std::uint8_t(beacon.major >> 8),
                                            0x51,
                                            0xC0};
    std::vector<std::uint8_t> data{30, 0x02, 0x01, 0x06, 0x1A, 0xFF, 0x4C, 0x00, 0x02, 0x15};
    data.insert(data.end(), familyUuid.begin(), familyUuid.end());
    data.insert(data.end(), {std::uint8_t(beacon.major >> 8), std::uint8_t(beacon.major),
                             std::uint8_t(beacon.minor >> 8), std::uint8_t(beacon.minor),
                             std::uint8_t(measuredPower)});
    data.resize(32, 0);
    return controller.command(0x2005, address) && controller.command(0x2008, data) &&
           controller.command(0x200A, {0x01}) && controller.command(0x200A, {0x00});
}

// Advertises until the controller fails; returns to wait for it again.
struct Paths
{
    std::string beacons, ready, sent;
};

void writeCount(const std::string& path, unsigned long count)
{
    if (path.empty())
        return;
    std::ofstream(path + ".new") << count << "\n";
    std::rename((path + ".new").c_str(), path.c_str());
}

void run(Controller& controller, const Paths& paths, unsigned long& sent)
{
    // Non-connectable undirected, 100 ms, all channels, from the random address.
    if (!controller.command(0x0C03, {}) ||
        !controller.command(
            0x2006, {0xA0, 0x00, 0xA0, 0x00, 0x03, 0x01, 0x00, 0, 0, 0, 0, 0, 0, 0x07, 0x00})) {
        std::fprintf(stderr, "advertiser: the controller refused its set-up\n");
        return;
    }
    if (!paths.ready.empty())
        std::ofstream(paths.ready) << getpid() << "\n";
    auto counted = Clock::now();
    std::fprintf(stderr, "advertiser: holding the controller\n");
    std::vector<Beacon> beacons;
    timespec seen{};
    while (true) {
        struct stat st
        {};
        if (stat(paths.beacons.c_str(), &st) == 0 &&
            (st.st_mtim.tv_sec != seen.tv_sec || st.st_mtim.tv_nsec != seen.tv_nsec ||
             st.st_ino == 0)) {
            seen = st.st_mtim;
            beacons = readBeacons(paths.beacons);
            std::fprintf(stderr, "advertiser: %zu beacons\n", beacons.size());
        }
        auto now = Clock::now();
        auto wake = now + std::chrono::milliseconds(100);
        for (Beacon& beacon : beacons) {
            if (beacon.next <= now) {
                if (!advertise(controller, beacon)) {
                    std::fprintf(stderr, "advertiser: lost the controller\n");
                    return;
                }
                ++sent;
                const auto period = std::chrono::duration_cast<Clock::duration>(
                    std::chrono::duration<double>(1.0 / beacon.hz));
                // Falling behind (a loaded machine) must not turn into a burst to catch up.
                beacon.next = std::max(beacon.next + period, now);
                now = Clock::now();
            }
            wake = std::min(wake, beacon.next);
        }
        if (now - counted >= std::chrono::seconds(1)) {
            writeCount(paths.sent, sent);
            counted = now;
        }
        std::this_thread::sleep_until(wake);
    }
}

} // namespace

int main(int argc, char** argv)
{
    int hci = -1;
    Paths paths;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--hci")
            hci = std::atoi(argv[i + 1]);
        else if (option == "--beacons")
            paths.beacons = argv[i + 1];
        else if (option == "--ready")
            paths.ready = argv[i + 1];
        else if (option == "--sent")
            paths.sent = argv[i + 1];
    }
    if (hci < 0 || paths.beacons.empty()) {
        std::fprintf(stderr, "usage: quorlix_lab_advertiser --hci N --beacons FILE [--ready FILE] "
                             "[--sent FILE]\n");
        return 2;
    }
    int lastError = 0;
    unsigned long sent = 0;
    while (true) {
        const int fd = socket(afBluetooth, SOCK_RAW | SOCK_CLOEXEC, btprotoHci);
        if (fd < 0) {
            std::fprintf(stderr, "advertiser: no Bluetooth sockets: %s\n", std::strerror(errno));
            return 1;
        }
        SockaddrHci address{afBluetooth, static_cast<unsigned short>(hci), hciChannelUser};
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            lastError = 0;
            Controller controller(fd);
            run(controller, paths, sent);
            if (!paths.ready.empty())
                unlink(paths.ready.c_str());
        } else {
            if (errno != lastError)
                std::fprintf(stderr, "advertiser: hci%d not available yet: %s\n", hci,
                             std::strerror(errno));
            lastError = errno;
            close(fd);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}
