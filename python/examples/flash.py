"""Flash a firmware image onto a device and print the progress.

    python3 flash.py PORT IMAGE

Try it against the simulated device: start `quelworks-devsim`, which prints its port, and give
that port here. Set QUELWORKS_LIBRARY to libquelworks_c.so (or quelworks_c.dll) if the library
is not beside the package or on the system's search path.
"""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))

import quelworks  # noqa: E402


def main():
    if len(sys.argv) != 3:
        print(__doc__.strip().splitlines()[2].strip(), file=sys.stderr)
        return 2
    port, image = sys.argv[1], sys.argv[2]

    def progress(done, total):
        print(f"\r{done * 100 // max(total, 1):3d}%  {done}/{total} bytes", end="", flush=True)

    try:
        with quelworks.Bootloader(port, progress=progress) as boot:
            print(f"device {boot.device_type:#06x}, serial {boot.serial_number}, "
                  f"firmware {boot.firmware_version:#06x}: {boot.description}")
            boot.switch_to_max_baud_rate()
            boot.enter_programming()
            boot.flash(image)
            print("\ndone")
    except quelworks.Error as error:
        print(f"\nflash failed: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
