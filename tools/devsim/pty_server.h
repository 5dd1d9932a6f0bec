// Serves a simulated device on a pseudo-terminal: the host opens the pty's slave side like a
// serial port, the server reads and writes the master side and keeps the device's clock.
#ifndef QUELWORKS_TOOLS_DEVSIM_PTY_SERVER_H
#define QUELWORKS_TOOLS_DEVSIM_PTY_SERVER_H

#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "device.h"

namespace quelworks::devsim {

class PtyServer {
public:
    // `imageOut`: when not empty, every image that arrives complete is written to this file.
    explicit PtyServer(DeviceConfig config, std::string imageOut = {});
    ~PtyServer();
    PtyServer(const PtyServer&) = delete;
    PtyServer& operator=(const PtyServer&) = delete;

    // Creates the pty. On failure returns false and says why in *error.
    bool open(std::string* error);
    // The path the host opens, such as /dev/pts/3.
    const std::string& portPath() const { return path_; }

    // Serves until requestStop(). run() blocks; start() runs it on a thread of its own and
    // stop() ends that thread.
    void run();
    void start();
    void stop();
    // Safe to call from a signal handler.
    void requestStop() noexcept;

    // Runs `f` on the device under the server's lock (the device is busy on the server thread).
    template <typename F>
    auto withDevice(F&& f) {
        std::lock_guard<std::mutex> lock(mutex_);
        return f(device_);
    }
    void setTrace(std::function<void(const std::string&)> trace);

    // Problems met while serving (an image that could not be written, bytes dropped); empty if
    // none.
    std::string problems();

private:
    void writeOut(const std::vector<std::uint8_t>& bytes);
    void saveImage(const std::vector<std::uint8_t>& image);
    void note(const std::string& problem);

    Device device_;
    std::mutex mutex_;
    std::string imageOut_;
    std::string path_;
    std::string problems_;
    int master_ = -1;
    int slave_ = -1;
    int wake_[2] = {-1, -1};
    int imagesSaved_ = 0;
    std::thread thread_;
};

}  // namespace quelworks::devsim

#endif  // QUELWORKS_TOOLS_DEVSIM_PTY_SERVER_H
