// The bootloader client reading arbitrary device replies: the input is everything the "device"
// says, queued on a pseudo-terminal before the client asks. The client reads the identity and,
// when the replies put the device in programming mode, writes a small image. Nothing the device
// says may crash it, leak or loop.
#include <cstddef>
#include <cstdint>

#ifndef _WIN32

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "quelworks/bootloader/bootloader.h"

namespace {

class Rig {
public:
    Rig() {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[128] = {};
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
            ::ptsname_r(master_, name, sizeof name) != 0) {
            std::abort();
        }
        path_ = name;
        ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
        // Held open so the master never sees a hang-up between the client's connections, and
        // used to throw away replies the client left unread.
        slave_ = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        termios tio;
        if (slave_ < 0 || ::tcgetattr(slave_, &tio) != 0) std::abort();
        ::cfmakeraw(&tio);
        ::tcsetattr(slave_, TCSANOW, &tio);

        image_ = "/tmp/qw_fuzz_image_" + std::to_string(::getpid()) + ".bin";
        std::FILE* f = std::fopen(image_.c_str(), "wb");
        if (f == nullptr) std::abort();
        for (int i = 0; i < 40; ++i) std::fputc(i * 7, f);
        std::fclose(f);

        // Constructed once: construction drains the line for at least 100 ms. Each input works
        // on a copy, so nothing one input did (a switched baud rate, a block size) carries over.
        // A 1 ms time-out is enough: every reply byte is already waiting.
        prototype_ = new Bootloader(path_.data(), 1, false);
    }
    ~Rig() {
        delete prototype_;
        std::remove(image_.c_str());
    }

    void play(const std::uint8_t* data, std::size_t size) {
        discard(master_);
        discard(slave_);
        std::size_t done = 0;
        while (done < size) {
            ssize_t n = ::write(master_, data + done, size - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        Bootloader boot(*prototype_);
        boot.AcquireDeviceInfo();
        char* text = nullptr;
        if (boot.GetSerialNumber(&text)) std::free(text);
        if (boot.GetDeviceDescription(&text)) std::free(text);
        boot.UpdateFirmware(0x1234, image_.data());
        discard(master_);
        discard(slave_);
    }

private:
    static void discard(int fd) {
        std::uint8_t buffer[512];
        while (::read(fd, buffer, sizeof buffer) > 0) {
        }
    }

    int master_ = -1;
    int slave_ = -1;
    std::string path_;
    std::string image_;
    Bootloader* prototype_ = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Keep within what the pty buffers without a reader.
    if (size > 2048) return 0;
    static Rig rig;
    rig.play(data, size);
    return 0;
}

#else

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t*, std::size_t) {
    return 0;
}

#endif
