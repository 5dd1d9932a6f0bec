// Serial links: the synchronous Port and the queued AsyncLink with its background thread.
using System;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;

namespace Quelworks
{
    /// <summary>A synchronous serial link (8 data bits, no parity, one stop bit). Every call
    /// blocks until done or timed out. Dispose it (or use it in a using block) to close the port.</summary>
    public sealed class Port : IDisposable
    {
        private readonly PortHandle handle;
        private Func<int, int, bool> sendProgress;
        private Exception progressError;

        /// <summary>A link with these settings, opened at once when a name is given.</summary>
        public Port(string name = null, uint baudRate = 9600, bool xonXoff = false, string terminator = null)
        {
            Call.Check(NativeMethods.qw_port_new(out handle));
            try
            {
                Call.Check(NativeMethods.qw_port_set_baud_rate(handle, baudRate));
                Call.Check(NativeMethods.qw_port_set_xon_xoff(handle, xonXoff ? 1 : 0));
                if (terminator != null)
                    Call.Check(NativeMethods.qw_port_set_line_terminator(handle, Utf8.ToNative(terminator, "terminator")));
                if (name != null) Open(name);
            }
            catch
            {
                handle.Dispose(); // nobody else can
                throw;
            }
        }

        /// <summary>The serial ports the system knows.</summary>
        public static string[] List()
        {
            StringsHandle ports;
            Call.Check(NativeMethods.qw_port_list(out ports));
            using (ports) return ports.ToArray();
        }

        /// <summary>Opens the named port ("COM3", "/dev/ttyUSB0"); an open port is closed first.</summary>
        public void Open(string name)
        {
            Call.Check(NativeMethods.qw_port_open(H, Utf8.ToNative(name, "name")));
        }

        /// <summary>Closes the port; the object can open it again.</summary>
        public void Close()
        {
            Call.Check(NativeMethods.qw_port_close(H));
        }

        /// <summary>Whether the port is open.</summary>
        public bool IsOpen
        {
            get
            {
                int open;
                Call.Check(NativeMethods.qw_port_is_open(H, out open));
                return open != 0;
            }
        }

        /// <summary>The name of the last port opened ("" when none).</summary>
        public string Name
        {
            get { return Call.Text((byte[] b, int s, out int n) => NativeMethods.qw_port_get_name(H, b, s, out n)); }
        }

        /// <summary>The baud rate, used from the next Open.</summary>
        public uint BaudRate
        {
            get
            {
                uint rate;
                Call.Check(NativeMethods.qw_port_get_baud_rate(H, out rate));
                return rate;
            }
            set { Call.Check(NativeMethods.qw_port_set_baud_rate(H, value)); }
        }

        /// <summary>Called as (done, total) while Send writes more than 1000 bytes; returning
        /// false stops the send (Send then throws with Status.Cancelled). An exception it throws
        /// stops the send and is thrown again by Send.</summary>
        public Func<int, int, bool> SendProgress
        {
            get { return sendProgress; }
            set
            {
                NativeMethods.ProgressFn trampoline = null;
                if (value != null)
                {
                    trampoline = (done, total, user) =>
                    {
                        try
                        {
                            return sendProgress != null && !sendProgress(done, total) ? 1 : 0;
                        }
                        catch (Exception error)
                        {
                            if (progressError == null) progressError = error;
                            return 1;
                        }
                    };
                }
                Call.Check(NativeMethods.qw_port_set_send_progress(H, trampoline, IntPtr.Zero));
                handle.Progress = trampoline;
                sendProgress = value;
            }
        }

        /// <summary>Sends the bytes; with SendProgress set, in chunks with progress reports.</summary>
        public void Send(byte[] data)
        {
            if (data == null) throw new ArgumentNullException("data");
            progressError = null;
            int code = NativeMethods.qw_port_send(H, data, data.Length);
            Exception error = progressError;
            progressError = null;
            if (error != null) System.Runtime.ExceptionServices.ExceptionDispatchInfo.Capture(error).Throw();
            Call.Check(code);
        }

        /// <summary>Sends the text as UTF-8.</summary>
        public void Send(string text)
        {
            if (text == null) throw new ArgumentNullException("text");
            Send(Encoding.UTF8.GetBytes(text));
        }

        /// <summary>Exactly count bytes; QuelworksTimeoutException when they do not all come.</summary>
        public byte[] Receive(int count, int timeoutMs = 1000)
        {
            if (count < 0) throw new ArgumentOutOfRangeException("count");
            var data = new byte[count];
            Call.Check(NativeMethods.qw_port_receive(H, data, count, timeoutMs));
            return data;
        }

        /// <summary>Whatever comes until the line stays quiet for timeoutMs (possibly nothing).</summary>
        public byte[] ReceiveUntilQuiet(int timeoutMs = 100)
        {
            IntPtr data;
            int length;
            Call.Check(NativeMethods.qw_port_receive_until_quiet(H, timeoutMs, out data, out length));
            return Call.TakeBytes(data, length);
        }

        /// <summary>One line, terminator included, as UTF-8 text.</summary>
        public string ReceiveLine(int timeoutMs = 1000)
        {
            IntPtr line;
            int length;
            Call.Check(NativeMethods.qw_port_receive_line(H, timeoutMs, out line, out length));
            byte[] bytes = Call.TakeBytes(line, length);
            return Encoding.UTF8.GetString(bytes);
        }

        /// <summary>Closes the port and releases the link.</summary>
        public void Dispose()
        {
            handle.Dispose();
        }

        private PortHandle H
        {
            get
            {
                if (handle.IsClosed) throw new ObjectDisposedException("Port");
                return handle;
            }
        }
    }

    /// <summary>A queued serial link with a background thread. Each cycle (about 50 ms) it sends
    /// at most one queued message and reads at most one byte; replies are framed by the reply
    /// table (a registered command byte gives a reply of fixed length, any other first byte a
    /// reply ending with the terminator) and raised through <see cref="Received"/>.</summary>
    public sealed class AsyncLink : IDisposable
    {
        private readonly AsyncHandle handle;
        private Exception callbackError;

        // The link whose handler runs on this thread: it must not close or free its own link
        // (that would wait for the very thread it runs on).
        [ThreadStatic] private static AsyncLink calling;

        /// <summary>A closed link with these line settings and an empty reply table.</summary>
        public AsyncLink(uint baudRate = 9600, bool xonXoff = false)
        {
            Call.Check(NativeMethods.qw_async_new(out handle));
            try
            {
                Call.Check(NativeMethods.qw_async_set_baud_rate(handle, baudRate));
                Call.Check(NativeMethods.qw_async_set_xon_xoff(handle, xonXoff ? 1 : 0));
            }
            catch
            {
                handle.Dispose();
                throw;
            }
            // The delegates live in the handle, so they stay alive as long as the native link
            // that calls them.
            handle.OnReceive = (data, length, user) =>
            {
                calling = this;
                try
                {
                    var reply = new byte[length];
                    if (length > 0) Marshal.Copy(data, reply, 0, length);
                    var received = Received;
                    if (received != null) received(reply);
                }
                catch (Exception error)
                {
                    Interlocked.CompareExchange(ref callbackError, error, null);
                }
                finally
                {
                    calling = null;
                }
            };
            handle.OnDisconnect = (code, user) =>
            {
                calling = this;
                try
                {
                    var disconnected = Disconnected;
                    if (disconnected != null) disconnected(code);
                }
                catch (Exception error)
                {
                    Interlocked.CompareExchange(ref callbackError, error, null);
                }
                finally
                {
                    calling = null;
                }
            };
            Call.Check(NativeMethods.qw_async_set_callbacks(handle, handle.OnReceive, handle.OnDisconnect, IntPtr.Zero));
        }

        /// <summary>A complete reply, raised on the link's background thread. A handler may call
        /// Send and QueueLength on this link, but not Close or Dispose.</summary>
        public event Action<byte[]> Received;

        /// <summary>The link was dropped (0: a send failed), raised on the background thread.</summary>
        public event Action<int> Disconnected;

        /// <summary>The first exception a handler threw (it never reaches the library; the link
        /// goes on), or null.</summary>
        public Exception CallbackException
        {
            get { return Volatile.Read(ref callbackError); }
        }

        /// <summary>Registers a reply of expectedLength bytes in total for a command byte; false
        /// when that command was registered already.</summary>
        public bool AddCommand(byte command, int expectedLength)
        {
            int added;
            Call.Check(NativeMethods.qw_async_add_command(H, command, expectedLength, out added));
            return added != 0;
        }

        /// <summary>Removes a command from the reply table.</summary>
        public void DeleteCommand(byte command)
        {
            Call.Check(NativeMethods.qw_async_delete_command(H, command));
        }

        /// <summary>The end of replies that begin with an unregistered byte.</summary>
        public void SetTerminator(string terminator)
        {
            Call.Check(NativeMethods.qw_async_set_terminator(H, Utf8.ToNative(terminator, "terminator")));
        }

        /// <summary>Opens the port and starts the background thread.</summary>
        public void Open(string name)
        {
            Call.Check(NativeMethods.qw_async_open(H, Utf8.ToNative(name, "name")));
        }

        /// <summary>Drops the queue, stops the thread (waiting up to about 2 s for its cycle) and
        /// closes the port.</summary>
        public void Close()
        {
            RefuseFromOwnHandler("Close");
            Call.Check(NativeMethods.qw_async_close(H));
        }

        /// <summary>Whether the link is open.</summary>
        public bool IsOpen
        {
            get
            {
                int open;
                Call.Check(NativeMethods.qw_async_is_open(H, out open));
                return open != 0;
            }
        }

        /// <summary>Queues a copy of the data (at most 101 messages wait).</summary>
        public void Send(byte[] data)
        {
            if (data == null) throw new ArgumentNullException("data");
            Call.Check(NativeMethods.qw_async_send(H, data, data.Length));
        }

        /// <summary>Queues the text as UTF-8.</summary>
        public void Send(string text)
        {
            if (text == null) throw new ArgumentNullException("text");
            Send(Encoding.UTF8.GetBytes(text));
        }

        /// <summary>The number of queued messages.</summary>
        public int QueueLength
        {
            get
            {
                int count;
                Call.Check(NativeMethods.qw_async_queue_length(H, out count));
                return count;
            }
        }

        /// <summary>Stops the link (as Close) and releases it.</summary>
        public void Dispose()
        {
            RefuseFromOwnHandler("Dispose");
            handle.Dispose();
        }

        private void RefuseFromOwnHandler(string what)
        {
            if (calling == this)
                throw new InvalidOperationException(what + " cannot be called from a handler of the same link");
        }

        private AsyncHandle H
        {
            get
            {
                if (handle.IsClosed) throw new ObjectDisposedException("AsyncLink");
                return handle;
            }
        }
    }
}
