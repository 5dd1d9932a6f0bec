// The client of the device's bootloader: identity, baud-rate switch and firmware update.
using System;
using System.Runtime.ExceptionServices;

namespace Quelworks
{
    /// <summary>The client of the device's bootloader on one port. Each operation connects,
    /// exchanges and disconnects, so the port is free between calls.</summary>
    public sealed class Bootloader : IDisposable
    {
        private readonly BootHandle handle;
        private Exception progressError;

        /// <summary>Names the port, drains pending input and, when readIdentity is true, reads
        /// the device's identity (HasIdentity tells whether that worked). timeoutMs is the
        /// time-out of every receive, at least 10.</summary>
        public Bootloader(string portName, int timeoutMs = 1000, bool readIdentity = true,
                          Action<int, int> progress = null)
        {
            Call.Check(NativeMethods.qw_boot_new(Utf8.ToNative(portName, "portName"), timeoutMs,
                                                 readIdentity ? 1 : 0, out handle));
            Progress = progress;
            // One trampoline for the object's life, kept in the handle while registered.
            handle.Progress = (done, total, user) =>
            {
                try
                {
                    var report = Progress;
                    if (report != null) report(done, total);
                }
                catch (Exception error)
                {
                    if (progressError == null) progressError = error;
                }
                return 0;
            };
            Call.Check(NativeMethods.qw_boot_set_progress(handle, handle.Progress, IntPtr.Zero));
        }

        /// <summary>Called as (bytes sent, image size) during a flash, on the calling thread.
        /// An exception it throws does not stop the flash (it is never stopped half-way); the
        /// first one is thrown again when Flash returns.</summary>
        public Action<int, int> Progress { get; set; }

        /// <summary>Reads the identity again over one connection.</summary>
        public void ReadIdentity()
        {
            Call.Check(NativeMethods.qw_boot_read_identity(H));
        }

        /// <summary>Whether the device's identity has been read.</summary>
        public bool HasIdentity
        {
            get
            {
                int available;
                Call.Check(NativeMethods.qw_boot_has_identity(H, out available));
                return available != 0;
            }
        }

        private delegate int IntGetter(BootHandle boot, out int value);

        private int Get(IntGetter getter)
        {
            int value;
            Call.Check(getter(H, out value));
            return value;
        }

        /// <summary>The device type (needs the identity; QuelworksException otherwise).</summary>
        public int DeviceType { get { return Get(NativeMethods.qw_boot_get_device_type); } }
        /// <summary>The device sub-type.</summary>
        public int SubDeviceType { get { return Get(NativeMethods.qw_boot_get_sub_device_type); } }
        /// <summary>The hardware revision.</summary>
        public int Revision { get { return Get(NativeMethods.qw_boot_get_revision); } }
        /// <summary>The firmware version.</summary>
        public int FirmwareVersion { get { return Get(NativeMethods.qw_boot_get_firmware_version); } }
        /// <summary>The bootloader version.</summary>
        public int BootloaderVersion { get { return Get(NativeMethods.qw_boot_get_bootloader_version); } }
        /// <summary>The highest baud rate the device supports.</summary>
        public int MaxBaudRate { get { return Get(NativeMethods.qw_boot_get_max_baud_rate); } }
        /// <summary>Whether the device is in programming mode.</summary>
        public bool InProgramMode { get { return Get(NativeMethods.qw_boot_get_program_mode) == 0; } }

        /// <summary>The device's serial number.</summary>
        public string SerialNumber
        {
            get { return Call.Text((byte[] b, int s, out int n) => NativeMethods.qw_boot_get_serial_number(H, b, s, out n)); }
        }

        /// <summary>The device's free-text description.</summary>
        public string Description
        {
            get { return Call.Text((byte[] b, int s, out int n) => NativeMethods.qw_boot_get_description(H, b, s, out n)); }
        }

        /// <summary>Asks the device for its maximum baud rate; later operations use it.</summary>
        public void SwitchToMaxBaudRate()
        {
            Call.Check(NativeMethods.qw_boot_switch_to_max_baud_rate(H));
        }

        /// <summary>Brings the device into programming mode (needed before a flash).</summary>
        public void EnterProgramming()
        {
            Call.Check(NativeMethods.qw_boot_enter_programming(H));
        }

        /// <summary>Writes a firmware image held in memory; value goes into the header.</summary>
        public void Flash(byte[] image, int value = 0)
        {
            if (image == null) throw new ArgumentNullException("image");
            Finish(NativeMethods.qw_boot_flash_memory(BeginFlash(), value, image, image.Length));
        }

        /// <summary>Writes the firmware image file.</summary>
        public void FlashFile(string path, int value = 0)
        {
            byte[] name = Utf8.ToNative(path, "path");
            if (name == null) throw new ArgumentNullException("path");
            Finish(NativeMethods.qw_boot_flash_file(BeginFlash(), value, name));
        }

        private BootHandle BeginFlash()
        {
            progressError = null;
            return H;
        }

        private void Finish(int code)
        {
            Exception error = progressError;
            progressError = null;
            if (error != null) ExceptionDispatchInfo.Capture(error).Throw();
            Call.Check(code);
        }

        /// <summary>Releases the client (the port is not held between calls).</summary>
        public void Dispose()
        {
            handle.Dispose();
        }

        private BootHandle H
        {
            get
            {
                if (handle.IsClosed) throw new ObjectDisposedException("Bootloader");
                return handle;
            }
        }
    }
}
