// The declarations of the C library's functions, its handles as SafeHandles, and the helpers that
// turn its status codes into exceptions and its UTF-8 strings into .NET strings.
using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Quelworks
{
    /// <summary>The library's status codes (0 is success).</summary>
    public enum Status
    {
        /// <summary>Success.</summary>
        Ok = 0,
        /// <summary>A null, freed or wrong handle, a null pointer or a value out of range.</summary>
        InvalidArgument = -1,
        /// <summary>The operation ran and did not succeed.</summary>
        Failed = -2,
        /// <summary>No (complete) answer within the time-out.</summary>
        Timeout = -3,
        /// <summary>A buffer was too small (handled inside the package).</summary>
        BufferTooSmall = -4,
        /// <summary>Out of memory.</summary>
        NoMemory = -5,
        /// <summary>The information is not available (identity not read).</summary>
        NotAvailable = -6,
        /// <summary>Malformed input file.</summary>
        Format = -7,
        /// <summary>A callback asked to stop.</summary>
        Cancelled = -8,
        /// <summary>The port or link is not open.</summary>
        NotOpen = -9,
        /// <summary>An unexpected internal error.</summary>
        Internal = -10,
    }

    /// <summary>A failed library call, with the library's own message and status code.</summary>
    public class QuelworksException : Exception
    {
        /// <summary>An exception with the library's message and status.</summary>
        public QuelworksException(string message, Status status) : base(message)
        {
            Status = status;
        }

        /// <summary>The status code the library returned.</summary>
        public Status Status { get; private set; }
    }

    /// <summary>The device or the line did not answer in time.</summary>
    public class QuelworksTimeoutException : QuelworksException
    {
        /// <summary>A time-out with the library's message.</summary>
        public QuelworksTimeoutException(string message) : base(message, Status.Timeout)
        {
        }
    }

    /// <summary>The version of the loaded C library.</summary>
    public static class Library
    {
        /// <summary>The loaded library's version, "major.minor.patch".</summary>
        public static string Version
        {
            get
            {
                int major, minor, patch;
                return Utf8.FromNative(NativeMethods.qw_version(out major, out minor, out patch));
            }
        }

        /// <summary>The major version: the interface this package was written for is 1.</summary>
        public static int VersionMajor
        {
            get
            {
                int major, minor, patch;
                NativeMethods.qw_version(out major, out minor, out patch);
                return major;
            }
        }
    }

    internal static class Utf8
    {
        // Invalid bytes from the library become U+FFFD; text going in is always valid UTF-8.
        private static readonly UTF8Encoding Encoding = new UTF8Encoding(false, false);

        /// <summary>A zero-terminated UTF-8 copy of text for the library (null stays null).</summary>
        public static byte[] ToNative(string text, string what)
        {
            if (text == null) return null;
            if (text.IndexOf('\0') >= 0)
                throw new ArgumentException(what + " holds a zero character, which would cut it short", what);
            var bytes = new byte[Encoding.GetByteCount(text) + 1];
            Encoding.GetBytes(text, 0, text.Length, bytes, 0);
            return bytes;
        }

        /// <summary>A zero-terminated UTF-8 string the library owns, as a .NET string.</summary>
        public static string FromNative(IntPtr text)
        {
            if (text == IntPtr.Zero) return "";
            int length = 0;
            while (Marshal.ReadByte(text, length) != 0) ++length;
            var bytes = new byte[length];
            Marshal.Copy(text, bytes, 0, length);
            return Encoding.GetString(bytes);
        }

        public static string FromBytes(byte[] bytes, int length)
        {
            return Encoding.GetString(bytes, 0, length);
        }
    }

    internal delegate int TextGetter(byte[] buffer, int size, out int needed);

    internal static class Call
    {
        /// <summary>Throws the exception matching a failed status, with the calling thread's
        /// last error message from the library.</summary>
        public static void Check(int code)
        {
            if (code == 0) return;
            string message = Utf8.FromNative(NativeMethods.qw_last_error_message());
            string name = Utf8.FromNative(NativeMethods.qw_status_text(code));
            string text = message.Length > 0 ? message + " (" + name + ")" : name;
            if (code == (int)Status.Timeout) throw new QuelworksTimeoutException(text);
            throw new QuelworksException(text, (Status)code);
        }

        /// <summary>Reads a text through the library's (buffer, size, needed) convention: asks
        /// for the size, then reads into a buffer of that size.</summary>
        public static string Text(TextGetter getter)
        {
            byte[] buffer = new byte[256];
            for (int attempt = 0; attempt < 4; ++attempt)
            {
                int needed;
                int code = getter(buffer, buffer.Length, out needed);
                if (code == 0) return Utf8.FromBytes(buffer, Math.Max(needed - 1, 0));
                if (code != (int)Status.BufferTooSmall) Check(code);
                buffer = new byte[Math.Max(needed, 1)];
            }
            throw new QuelworksException("the text kept growing while it was read", Status.Internal);
        }

        /// <summary>Copies a block the library allocated and releases it.</summary>
        public static T[] TakeArray<T>(IntPtr block, int count) where T : struct
        {
            try
            {
                var result = new T[count];
                int size = Marshal.SizeOf(typeof(T));
                for (int i = 0; i < count; ++i)
                    result[i] = (T)Marshal.PtrToStructure(new IntPtr(block.ToInt64() + (long)i * size), typeof(T));
                return result;
            }
            finally
            {
                NativeMethods.qw_free(block);
            }
        }

        public static byte[] TakeBytes(IntPtr block, int length)
        {
            try
            {
                var result = new byte[length];
                if (length > 0) Marshal.Copy(block, result, 0, length);
                return result;
            }
            finally
            {
                NativeMethods.qw_free(block);
            }
        }
    }

    /// <summary>A library object. Freed once, by Dispose or by the finalizer; afterwards every
    /// call through it throws ObjectDisposedException.</summary>
    internal abstract class QwHandle : SafeHandle
    {
        protected QwHandle() : base(IntPtr.Zero, true)
        {
        }

        public override bool IsInvalid
        {
            get { return handle == IntPtr.Zero; }
        }
    }

    internal sealed class PortHandle : QwHandle
    {
        internal NativeMethods.ProgressFn Progress; // alive while registered

        protected override bool ReleaseHandle()
        {
            return NativeMethods.qw_port_free(handle) == 0;
        }
    }

    internal sealed class AsyncHandle : QwHandle
    {
        // Alive as long as the native link: the finalizer frees the link (stopping its thread)
        // before these can be collected.
        internal NativeMethods.ReceiveFn OnReceive;
        internal NativeMethods.DisconnectFn OnDisconnect;

        protected override bool ReleaseHandle()
        {
            return NativeMethods.qw_async_free(handle) == 0;
        }
    }

    internal sealed class BootHandle : QwHandle
    {
        internal NativeMethods.ProgressFn Progress;

        protected override bool ReleaseHandle()
        {
            return NativeMethods.qw_boot_free(handle) == 0;
        }
    }

    internal sealed class StringsHandle : QwHandle
    {
        protected override bool ReleaseHandle()
        {
            return NativeMethods.qw_strings_free(handle) == 0;
        }

        public string[] ToArray()
        {
            int count;
            Call.Check(NativeMethods.qw_strings_count(this, out count));
            var result = new string[count];
            for (int i = 0; i < count; ++i)
            {
                int index = i;
                result[i] = Call.Text((byte[] b, int s, out int n) => NativeMethods.qw_strings_get(this, index, b, s, out n));
            }
            return result;
        }
    }

    internal static class NativeMethods
    {
        // "quelworks_c" finds quelworks_c.dll on Windows and libquelworks_c.so elsewhere (see
        // Quelworks.dll.config for Mono).
        private const string Lib = "quelworks_c";
        private const CallingConvention Cdecl = CallingConvention.Cdecl;

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int ProgressFn(int done, int total, IntPtr user);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void ReceiveFn(IntPtr data, int length, IntPtr user);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void DisconnectFn(int code, IntPtr user);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern IntPtr qw_last_error_message();
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern IntPtr qw_status_text(int status);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern IntPtr qw_version(out int major, out int minor, out int patch);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern void qw_free(IntPtr block);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_strings_count(StringsHandle list, out int count);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_strings_get(StringsHandle list, int index, byte[] buffer, int size, out int needed);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_strings_free(IntPtr list);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_new(out PortHandle port);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_free(IntPtr port);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_set_baud_rate(PortHandle port, uint baudRate);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_get_baud_rate(PortHandle port, out uint baudRate);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_set_xon_xoff(PortHandle port, int enabled);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_set_line_terminator(PortHandle port, byte[] terminator);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_set_send_progress(PortHandle port, ProgressFn callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_open(PortHandle port, byte[] name);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_close(PortHandle port);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_is_open(PortHandle port, out int open);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_get_name(PortHandle port, byte[] buffer, int size, out int needed);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_send(PortHandle port, byte[] data, int length);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_receive(PortHandle port, byte[] data, int count, int timeoutMs);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_receive_until_quiet(PortHandle port, int timeoutMs, out IntPtr data, out int length);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_receive_line(PortHandle port, int timeoutMs, out IntPtr line, out int length);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_port_list(out StringsHandle ports);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_new(out AsyncHandle link);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_free(IntPtr link);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_set_baud_rate(AsyncHandle link, uint baudRate);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_set_xon_xoff(AsyncHandle link, int enabled);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_set_callbacks(AsyncHandle link, ReceiveFn onReceive, DisconnectFn onDisconnect, IntPtr user);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_add_command(AsyncHandle link, byte command, int expected, out int added);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_delete_command(AsyncHandle link, byte command);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_set_terminator(AsyncHandle link, byte[] terminator);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_open(AsyncHandle link, byte[] name);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_close(AsyncHandle link);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_is_open(AsyncHandle link, out int open);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_send(AsyncHandle link, byte[] data, int length);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_async_queue_length(AsyncHandle link, out int count);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_new(byte[] portName, int timeoutMs, int readIdentity, out BootHandle boot);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_free(IntPtr boot);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_read_identity(BootHandle boot);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_has_identity(BootHandle boot, out int available);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_device_type(BootHandle boot, out int value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_sub_device_type(BootHandle boot, out int value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_revision(BootHandle boot, out int value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_firmware_version(BootHandle boot, out int value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_bootloader_version(BootHandle boot, out int value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_max_baud_rate(BootHandle boot, out int value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_program_mode(BootHandle boot, out int value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_serial_number(BootHandle boot, byte[] buffer, int size, out int needed);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_get_description(BootHandle boot, byte[] buffer, int size, out int needed);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_switch_to_max_baud_rate(BootHandle boot);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_enter_programming(BootHandle boot);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_set_progress(BootHandle boot, ProgressFn callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_flash_file(BootHandle boot, int value, byte[] fileName);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_boot_flash_memory(BootHandle boot, int value, byte[] image, int length);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_geo_point_in_polygon(Point[] polygon, int vertexCount, float x, float y, out int inside);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_geo_points_in_polygon(Point[] polygon, int vertexCount, Point[] points, int count, byte[] inside);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_geo_bounding_box(Point[] points, int count, out RectF box);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_geo_cover_polygon(Point[] polygon, int vertexCount, ref RectF area, int tolerance, RectF[] prior, int priorCount, out IntPtr rects, out int count);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_geo_hatch(Point[] outline, int vertexCount, int spacing, out IntPtr segments, out int segmentCount, out IntPtr groupSizes, out int groupCount);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_geo_transform(CalibrationPoint[] calibration, int calibrationCount, float x, float y, out Point device);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_geo_transform_many(CalibrationPoint[] calibration, int calibrationCount, Point[] camera, int count, [Out] Point[] device);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_create(byte[] file);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_content(byte[] file, byte[] buffer, int size, out int needed);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_section_names(byte[] file, out StringsHandle names);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_get_value(byte[] file, byte[] section, byte[] key, byte[] buffer, int size, out int needed);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_record_exists(byte[] file, byte[] section, byte[] key, out int exists);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_section_exists(byte[] file, byte[] section, out int exists);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_set_value(byte[] file, byte[] section, byte[] key, byte[] value);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_add_section(byte[] file, byte[] section);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_rename_section(byte[] file, byte[] oldSection, byte[] newSection);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_comment_record(byte[] file, byte[] section, byte[] key, byte commentChar);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_uncomment_record(byte[] file, byte[] section, byte[] key);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_delete_record(byte[] file, byte[] section, byte[] key);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_delete_section(byte[] file, byte[] section);
        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_ini_sort(byte[] file, int descending);

        [DllImport(Lib, CallingConvention = Cdecl)] internal static extern int qw_crc16(ushort initial, IntPtr data, int length, out ushort crc);
    }
}
