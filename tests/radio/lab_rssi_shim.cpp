// Preloaded into BlueZ's controller emulator (btvirt): its advertising reports carry RSSI 127, "not
// available", which the kernel's RSSI threshold then drops. This replaces that 127 with the value
// in $QUORLIX_LAB_RSSI_FILE, read again for every report so a test can move a beacon while it runs.
// btvirt writes each HCI packet to its /dev/vhci descriptor with one writev.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

int currentRssi()
{
    const char* path = getenv("QUORLIX_LAB_RSSI_FILE");
    char text[16] = {};
    const int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0)
        return -60;
    const ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    if (n <= 0)
        return -60;
    const int value = std::atoi(text);
    return value < -127 ? -127 : value > 20 ? 20 : value;
}

} // namespace

extern "C" ssize_t writev(int fd, const iovec* iov, int iovcnt)
{
    using Writev = ssize_t (*)(int, const iovec*, int);
    static const auto real = reinterpret_cast<Writev>(dlsym(RTLD_NEXT, "writev"));

    std::uint8_t packet[512];
    size_t length = 0;
    for (int i = 0; i < iovcnt; ++i) {
        if (length + iov[i].iov_len > sizeof packet)
            return real(fd, iov, iovcnt);
        std::memcpy(packet + length, iov[i].iov_base, iov[i].iov_len);
        length += iov[i].iov_len;
    }
    // H4 event, LE meta event: [0]=0x04 [1]=0x3E [2]=length [3]=subevent [4]=reports (one here).
    if (length < 5 || packet[0] != 0x04 || packet[1] != 0x3E || packet[4] != 1)
        return real(fd, iov, iovcnt);
    size_t at = 0;
    if (packet[3] == 0x02 && length > 13) // legacy report: the RSSI follows the data
        at = 14 + size_t{packet[13]};
    else if (packet[3] == 0x0D) // extended report: fixed position
        at = 18;
    if (at == 0 || at >= length || packet[at] != 127)
        return real(fd, iov, iovcnt);
    packet[at] = static_cast<std::uint8_t>(static_cast<std::int8_t>(currentRssi()));
    iovec whole{packet, length};
    return real(fd, &whole, 1);
}
