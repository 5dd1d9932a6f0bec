// Tests of the C# package against the C library and the simulated device on a pseudo-terminal.
// A small runner of its own (no test framework needed): each test runs in isolation, and the last
// line says "N passed, N failed, N skipped". QUELWORKS_DEVSIM names the quelworks-devsim program;
// without it the device tests are skipped.
using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Text;
using System.Threading;
using Quelworks;

internal sealed class SkipException : Exception
{
    public SkipException(string reason) : base(reason)
    {
    }
}

// quelworks-devsim on a pty; the port is the first line it prints.
internal sealed class Device : IDisposable
{
    private readonly Process process;

    public Device(string directory, params string[] options)
    {
        string program = Environment.GetEnvironmentVariable("QUELWORKS_DEVSIM");
        if (string.IsNullOrEmpty(program)) throw new SkipException("QUELWORKS_DEVSIM is not set");
        ImageOut = Path.Combine(directory, "received.bin");
        var arguments = new List<string> { "--image-out", ImageOut };
        arguments.AddRange(options);
        var start = new ProcessStartInfo(program, string.Join(" ", arguments.Select(a => "\"" + a + "\"")))
        {
            UseShellExecute = false,
            RedirectStandardOutput = true,
            RedirectStandardError = true,
        };
        process = Process.Start(start);
        process.ErrorDataReceived += (sender, e) => { };
        process.BeginErrorReadLine();
        Port = process.StandardOutput.ReadLine();
        if (string.IsNullOrEmpty(Port)) throw new Exception("the simulated device printed no port");
    }

    public string Port { get; private set; }
    public string ImageOut { get; private set; }

    // The image the device wrote once it equals the expected one (it writes after its reply).
    public byte[] ReceivedImage(byte[] expected)
    {
        byte[] data = null;
        for (int i = 0; i < 100; ++i)
        {
            try
            {
                data = File.ReadAllBytes(ImageOut);
            }
            catch (IOException)
            {
                data = null;
            }
            if (data != null && data.SequenceEqual(expected)) break;
            Thread.Sleep(50);
        }
        return data;
    }

    public void Dispose()
    {
        try
        {
            process.Kill();
            process.WaitForExit(10000);
        }
        catch (InvalidOperationException)
        {
        }
        process.Dispose();
    }
}

internal static class Tests
{
    private const int DeviceType = 0x0A02;
    private static int passed, failed, skipped;
    private static string scratch;

    private static void Check(bool condition, string what)
    {
        if (!condition) throw new Exception("check failed: " + what);
    }

    private static T Throws<T>(Action action, string what) where T : Exception
    {
        try
        {
            action();
        }
        catch (T expected)
        {
            return expected;
        }
        catch (Exception other)
        {
            throw new Exception(what + ": expected " + typeof(T).Name + ", got " + other.GetType().Name + ": " + other.Message);
        }
        throw new Exception(what + ": expected " + typeof(T).Name + ", nothing thrown");
    }

    private static bool WaitFor(Func<bool> condition, int milliseconds = 5000)
    {
        var clock = Stopwatch.StartNew();
        while (!condition())
        {
            if (clock.ElapsedMilliseconds > milliseconds) return false;
            Thread.Sleep(20);
        }
        return true;
    }

    private static void Run(string name, Action<string> test)
    {
        string directory = Path.Combine(scratch, name);
        Directory.CreateDirectory(directory);
        try
        {
            test(directory);
            ++passed;
            Console.WriteLine("ok      " + name);
        }
        catch (SkipException reason)
        {
            ++skipped;
            Console.WriteLine("skipped " + name + ": " + reason.Message);
        }
        catch (Exception error)
        {
            ++failed;
            Console.WriteLine("FAILED  " + name + ": " + error);
        }
    }

    private static void Identity(string dir)
    {
        using (var device = new Device(dir, "--serial", "CS000007", "--description", "Gerät é ✓", "--type", "0x0A02"))
        using (var boot = new Bootloader(device.Port))
        {
            Check(boot.HasIdentity, "identity read");
            Check(boot.DeviceType == DeviceType, "device type");
            Check(boot.SerialNumber == "CS000007", "serial number");
            Check(boot.Description == "Gerät é ✓", "UTF-8 description: " + boot.Description);
            Check(boot.BootloaderVersion == 2 && boot.MaxBaudRate == 115200, "versions");
            Check(!boot.InProgramMode, "not in programming mode");
        }
    }

    private static void FlashByteForByte(string dir)
    {
        var image = new byte[3000];
        for (int i = 0; i < image.Length; ++i) image[i] = (byte)(i * 7 + 3);
        var calls = new List<int[]>();
        using (var device = new Device(dir))
        using (var boot = new Bootloader(device.Port, progress: (done, total) => calls.Add(new[] { done, total })))
        {
            boot.SwitchToMaxBaudRate();
            boot.EnterProgramming();
            Check(boot.InProgramMode, "in programming mode");
            // The progress delegate must survive a collection while registered.
            GC.Collect();
            GC.WaitForPendingFinalizers();
            boot.Flash(image);
            Check(device.ReceivedImage(image).SequenceEqual(image), "image from memory arrived whole");
            Check(calls.Count > 2, "progress reported");
            Check(calls[0][0] == 0 && calls[0][1] == 3000, "first progress (0, 3000)");
            Check(calls.Last()[0] == 3000 && calls.Last()[1] == 3000, "last progress (3000, 3000)");

            // From a file whose name is not ASCII.
            byte[] reversed = image.Reverse().ToArray();
            string path = Path.Combine(dir, "Prüfung Gerät.bin");
            File.WriteAllBytes(path, reversed);
            boot.EnterProgramming();
            boot.FlashFile(path);
            Check(device.ReceivedImage(reversed).SequenceEqual(reversed), "image from file arrived whole");
            boot.EnterProgramming();
            var missing = Throws<QuelworksException>(() => boot.FlashFile(Path.Combine(dir, "missing.bin")), "missing image file");
            Check(missing.Message.Length > 0, "missing file explained");
        }
    }

    private static void RaisingProgressCallback(string dir)
    {
        using (var device = new Device(dir))
        using (var boot = new Bootloader(device.Port))
        {
            int calls = 0;
            boot.Progress = (done, total) =>
            {
                ++calls;
                throw new InvalidOperationException("stop at " + done);
            };
            boot.EnterProgramming();
            var error = Throws<InvalidOperationException>(() => boot.Flash(new byte[600]), "the callback's exception");
            Check(error.Message == "stop at 0", "the first exception is the one thrown: " + error.Message);
            Check(calls > 1, "the flash went on after the exception");
            // The library was not disturbed: the next flash works and arrives whole.
            boot.Progress = null;
            var image = Enumerable.Range(0, 700).Select(i => (byte)i).ToArray();
            boot.EnterProgramming();
            boot.Flash(image);
            Check(device.ReceivedImage(image).SequenceEqual(image), "next flash arrived whole");
        }
    }

    private static void SilentDeviceTimesOut(string dir)
    {
        using (var device = new Device(dir, "--silent"))
        {
            using (var boot = new Bootloader(device.Port, timeoutMs: 50))
            {
                Check(!boot.HasIdentity, "no identity from a silent device");
                Throws<QuelworksException>(() => { var type = boot.DeviceType; }, "identity getter without identity");
                var refused = Throws<QuelworksException>(() => boot.EnterProgramming(), "enter programming");
                Check(refused.Message.Length > 0, "message carried");
            }
            using (var port = new Port(device.Port))
            {
                var timeout = Throws<QuelworksTimeoutException>(() => port.Receive(1, 20), "receive");
                Check(timeout.Status == Status.Timeout, "timeout status");
                Check(port.ReceiveUntilQuiet(20).Length == 0, "nothing until quiet");
                Throws<QuelworksTimeoutException>(() => port.ReceiveLine(20), "receive line");
            }
        }
        var failure = Throws<QuelworksException>(() => new Port("/nonexistent/tty-é"), "opening a missing port");
        Check(failure.Message.Contains("/nonexistent/tty-é"), "the message names the port: " + failure.Message);
    }

    private static void SynchronousPort(string dir)
    {
        using (var device = new Device(dir, "--type", "0x0A02"))
        using (var port = new Port(device.Port))
        {
            Check(port.IsOpen && port.Name == device.Port && port.BaudRate == 9600, "open, name and rate kept");
            port.Send(new byte[] { 0x11 });
            byte[] reply = port.Receive(3);
            Check(reply[0] == 0x11 && reply[1] == 0x0A && reply[2] == 0x02, "device type reply");

            // A progress handler that stops the send, then one that throws.
            int reports = 0;
            port.SendProgress = (done, total) => ++reports < 2;
            var stopped = Throws<QuelworksException>(() => port.Send(new byte[5000]), "stopped send");
            Check(stopped.Status == Status.Cancelled && reports == 2, "cancelled after the second report");
            port.SendProgress = (done, total) => { throw new FormatException("from the handler"); };
            var thrown = Throws<FormatException>(() => port.Send(new byte[5000]), "throwing send handler");
            Check(thrown.Message == "from the handler", "the handler's own exception");
            port.SendProgress = null;
            port.ReceiveUntilQuiet(200);
            port.Close();
            Check(!port.IsOpen, "closed");
            Throws<QuelworksException>(() => port.Send(new byte[] { 1 }), "send on a closed port");
        }
    }

    private static void AsyncLinkReplies(string dir)
    {
        using (var device = new Device(dir, "--type", "0x0A02"))
        using (var link = new AsyncLink())
        {
            var replies = new List<byte[]>();
            int queueSeen = -1;
            Exception disposeFromHandler = null;
            link.Received += reply =>
            {
                lock (replies) replies.Add(reply);
                queueSeen = link.QueueLength; // calling back into the library from its thread
                try
                {
                    link.Dispose();
                }
                catch (Exception error)
                {
                    disposeFromHandler = error;
                }
                if (replies.Count == 1) throw new ApplicationException("handler failed");
            };
            Check(link.AddCommand(0x11, 3), "command added");
            Check(!link.AddCommand(0x11, 3), "second registration refused");
            link.Open(device.Port);
            Check(link.IsOpen, "open");
            link.Send(new byte[] { 0x11 });
            for (int i = 0; i < 10; ++i) GC.Collect(); // the registered delegates must survive
            Check(WaitFor(() => { lock (replies) return replies.Count == 1; }), "first reply");
            Check(replies[0].SequenceEqual(new byte[] { 0x11, 0x0A, 0x02 }), "reply framed by the table");
            Check(link.CallbackException is ApplicationException, "the handler's exception is kept");
            Check(disposeFromHandler is InvalidOperationException, "dispose from the handler refused");
            Check(queueSeen == 0, "queue length from the handler");
            // The link goes on after the handler threw.
            link.Send(new byte[] { 0x11 });
            Check(WaitFor(() => { lock (replies) return replies.Count == 2; }), "second reply");
            link.Close();
            Check(!link.IsOpen, "closed");
            Throws<QuelworksException>(() => link.Send(new byte[] { 0x11 }), "send on a closed link");
        }
    }

    private static void OpenLink(string port)
    {
        var link = new AsyncLink();
        link.Received += reply => { };
        link.Open(port);
    }

    private static void FinalizerFreesAForgottenLink(string dir)
    {
        using (var device = new Device(dir))
        {
            OpenLink(device.Port); // never disposed
            GC.Collect();
            GC.WaitForPendingFinalizers();
            // The port is opened exclusively, so this works only once the finalizer closed it.
            Check(WaitFor(() =>
            {
                try
                {
                    using (new Port(device.Port)) return true;
                }
                catch (QuelworksException)
                {
                    GC.Collect();
                    GC.WaitForPendingFinalizers();
                    return false;
                }
            }), "the forgotten link's port was closed by its finalizer");
        }
    }

    private static int OpenDescriptors()
    {
        return Directory.GetFileSystemEntries("/proc/self/fd").Length;
    }

    private static void OpenDisposeCyclesLeakNothing(string dir)
    {
        if (!Directory.Exists("/proc/self/fd")) throw new SkipException("no /proc/self/fd to count descriptors");
        using (var device = new Device(dir))
        {
            using (new Port(device.Port)) { }
            int before = OpenDescriptors();
            for (int i = 0; i < 2000; ++i)
                using (var port = new Port(device.Port)) { }
            for (int i = 0; i < 50; ++i)
                using (var link = new AsyncLink())
                    link.Open(device.Port);
            int after = OpenDescriptors();
            Check(after == before, "descriptors before " + before + ", after " + after);
        }
    }

    private static void UseAfterDispose(string dir)
    {
        using (var device = new Device(dir))
        {
            var boot = new Bootloader(device.Port, readIdentity: false);
            boot.Dispose();
            boot.Dispose(); // twice is harmless
            Throws<ObjectDisposedException>(() => boot.ReadIdentity(), "bootloader after dispose");
            Throws<ObjectDisposedException>(() => { var s = boot.SerialNumber; }, "getter after dispose");
        }
        var port = new Port();
        port.Dispose();
        port.Dispose();
        Throws<ObjectDisposedException>(() => port.Send(new byte[] { 1 }), "port after dispose");
        Throws<ObjectDisposedException>(() => { var open = port.IsOpen; }, "port property after dispose");
        var link = new AsyncLink();
        link.Dispose();
        Throws<ObjectDisposedException>(() => link.Send("x"), "link after dispose");
        Throws<ObjectDisposedException>(() => link.AddCommand(1, 2), "link table after dispose");
    }

    private static void IniRoundTrip(string dir)
    {
        var ini = new IniFile(Path.Combine(dir, "Gerät.ini"));
        ini.Create();
        ini.Set("Port", "Name", "/dev/ttyUSB0");
        ini.Set("Port", "Baud", 115200);
        ini.Set("Motion", "Speed", 2.5);
        ini.Set("Motion", "Note", "Größe ✓");
        string longValue = new string('x', 1000);
        ini.Set("Motion", "Long", longValue);
        Check(ini.Get("Port", "Baud") == "115200", "number written");
        Check(ini.Get("Motion", "Speed") == "2.5", "invariant decimal point");
        Check(ini.Get("Motion", "Note") == "Größe ✓", "UTF-8 value both ways");
        Check(ini.Get("Motion", "Long") == longValue, "a value longer than the first buffer");
        Check(ini.Get("Port", "Missing", "none") == "none", "default for a missing key");
        Check(ini.Sections().SequenceEqual(new[] { "Port", "Motion" }), "sections in order");
        ini.Delete("Port", "Name");
        Check(!ini.Has("Port", "Name") && ini.HasSection("Port"), "key deleted, section kept");
        ini.Delete("Motion", "Long");
        ini.RenameSection("Motion", "Axis");
        ini.CommentRecord("Axis", "Note", ';');
        Check(ini.Content().Contains(";Note=Größe ✓\n"), "commented out: " + ini.Content());
        ini.UncommentRecord("Axis", "Note");
        ini.Delete("Axis", "Note");
        Check(ini.Content() == "[Port]\nBaud=115200\n[Axis]\nSpeed=2.5\n", "content: " + ini.Content());
        // On disk each live record starts with the blank that marks it as not commented out.
        Check(File.ReadAllText(ini.Path) == " [Port]\n Baud=115200\n [Axis]\n Speed=2.5\n", "file on disk");

        string bad = Path.Combine(dir, "bad.ini");
        File.WriteAllText(bad, "[open\nk=v\n");
        var format = Throws<QuelworksException>(() => new IniFile(bad).Set("S", "k", "v"), "malformed file");
        Check(format.Status == Status.Format, "format status");
        Check(File.ReadAllText(bad) == "[open\nk=v\n", "malformed file untouched");
        Throws<ArgumentException>(() => ini.Set("Port", "a\0b", "v"), "a key with a zero character");
        Throws<ArgumentNullException>(() => ini.Get(null, "k"), "null section");
    }

    // Every function the package declares is found in the loaded library (a misspelt or missing
    // name would otherwise show only when that call is first made).
    private static void EveryDeclaredFunctionIsExported(string dir)
    {
        Type native = typeof(Port).Assembly.GetType("Quelworks.NativeMethods", true);
        var methods = native.GetMethods(System.Reflection.BindingFlags.Static | System.Reflection.BindingFlags.NonPublic);
        int count = 0;
        foreach (var method in methods.Where(m => (m.Attributes & System.Reflection.MethodAttributes.PinvokeImpl) != 0))
        {
            System.Runtime.InteropServices.Marshal.Prelink(method);
            ++count;
        }
        Check(count >= 70, "declarations found: " + count);
    }

    private static void Crc(string dir)
    {
        byte[] check = Encoding.ASCII.GetBytes("123456789");
        Check(Crc16.Compute(check) == 0x29B1, "check value from 0xFFFF");
        Check(Crc16.Compute(check, Crc16.Zeros) == 0x31C3, "check value from 0");
        Check(Crc16.Compute(new byte[0]) == 0xFFFF, "empty input");
        var framed = new byte[] { 0, 0x31, 0, 0x32, 9 };
        Check(Crc16.Compute(framed, 1, 3) == Crc16.Compute(new byte[] { 0x31, 0, 0x32 }), "offset and count");
        Check(Crc16.Compute(framed, 0, 4) != Crc16.Compute(framed, 0, 3), "bytes after a zero byte count");
        Throws<ArgumentOutOfRangeException>(() => Crc16.Compute(framed, 3, 3), "range beyond the array");
        Check(Library.VersionMajor == 1 && Library.Version.StartsWith("1."), "version " + Library.Version);
        Port.List(); // lists without failing (none may exist here)
    }

    private static void BatchGeometry(string dir)
    {
        var random = new Random(7);
        var polygon = Enumerable.Range(0, 12)
            .Select(i => new Point((float)random.NextDouble() * 100, (float)random.NextDouble() * 100)).ToList();
        polygon.Add(polygon[0]);
        var points = Enumerable.Range(0, 500)
            .Select(i => new Point((float)random.NextDouble() * 120 - 10, (float)random.NextDouble() * 120 - 10))
            .ToArray();
        bool[] batch = Geometry.PointsInPolygon(polygon.ToArray(), points);
        Check(batch.Length == points.Length, "one answer per point");
        for (int i = 0; i < points.Length; ++i)
            Check(batch[i] == Geometry.PointInPolygon(polygon.ToArray(), points[i].X, points[i].Y), "point " + i);
        Check(batch.Any(b => b) && batch.Any(b => !b), "both answers occur");

        var grid = new List<CalibrationPoint>();
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 3; ++x)
                grid.Add(new CalibrationPoint(new Point(x * 10f, y * 10f), new Point(x * 21f + y, y * 19f - x)));
        Point[] mapped = Geometry.TransformMany(grid.ToArray(), points);
        for (int i = 0; i < points.Length; ++i)
        {
            Point single = Geometry.Transform(grid.ToArray(), points[i].X, points[i].Y);
            Check(mapped[i].X == single.X && mapped[i].Y == single.Y, "transformed point " + i);
        }
        Point affine = Geometry.Transform(new[] {
            new CalibrationPoint(new Point(0, 0), new Point(10, 20)),
            new CalibrationPoint(new Point(1, 0), new Point(12, 20)),
            new CalibrationPoint(new Point(0, 1), new Point(10, 22)) }, 3, 4);
        Check(affine.X == 16 && affine.Y == 28, "three-point calibration " + affine);

        var square = new[] { new Point(0, 0), new Point(100, 0), new Point(100, 100), new Point(0, 100), new Point(0, 0) };
        RectF box = Geometry.BoundingBox(new[] { new Point(1.7f, -2.5f), new Point(10.2f, 4.9f) });
        Check(box.X == 1 && box.Y == -2 && box.Width == 9 && box.Height == 6, "bounding box truncated");
        RectF[] cover = Geometry.CoverPolygon(square, new RectF(0, 0, 100, 100), 0);
        Check(cover.Length > 0 && cover.All(r => r.X >= 0 && r.Y >= 0 && r.X + r.Width <= 100 && r.Y + r.Height <= 100),
              "cover within the area");
        Segment[][] lines = Geometry.Hatch(square, 10);
        Check(lines.Length >= 9, "one group per scan line: " + lines.Length);
        Check(lines.All(g => g.Length > 0 && g.All(s => s.Start.Y == g[0].Start.Y && s.End.Y == s.Start.Y)),
              "each group is one horizontal scan line");
        Throws<QuelworksException>(() => Geometry.PointInPolygon(new Point[0], 1, 1), "empty polygon");
    }

    private static int Main()
    {
        scratch = Path.Combine(Path.GetTempPath(), "quelworks-dotnet-" + Process.GetCurrentProcess().Id);
        Directory.CreateDirectory(scratch);
        try
        {
            Run("identity", Identity);
            Run("flash_byte_for_byte", FlashByteForByte);
            Run("raising_progress_callback", RaisingProgressCallback);
            Run("silent_device_times_out", SilentDeviceTimesOut);
            Run("synchronous_port", SynchronousPort);
            Run("async_link_replies", AsyncLinkReplies);
            Run("finalizer_frees_a_forgotten_link", FinalizerFreesAForgottenLink);
            Run("use_after_dispose", UseAfterDispose);
            Run("open_dispose_cycles_leak_nothing", OpenDisposeCyclesLeakNothing);
            Run("ini_round_trip", IniRoundTrip);
            Run("every_declared_function_is_exported", EveryDeclaredFunctionIsExported);
            Run("crc", Crc);
            Run("batch_geometry", BatchGeometry);
        }
        finally
        {
            Directory.Delete(scratch, true);
        }
        Console.WriteLine("{0} passed, {1} failed, {2} skipped", passed, failed, skipped);
        return failed == 0 ? 0 : 1;
    }
}
