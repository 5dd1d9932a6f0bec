// Flashes a firmware image onto a device and shows the progress.
//
//     mono Flash.exe PORT IMAGE        (on Windows: Flash.exe COM3 firmware.bin)
//
// Try it against the simulated device: start quelworks-devsim, which prints its port, and give
// that port here.
using System;
using Quelworks;

internal static class Flash
{
    private static int Main(string[] args)
    {
        if (args.Length != 2)
        {
            Console.Error.WriteLine("usage: Flash PORT IMAGE");
            return 2;
        }
        try
        {
            using (var boot = new Bootloader(args[0]))
            {
                if (!boot.HasIdentity)
                {
                    Console.Error.WriteLine("no answer from a device on " + args[0]);
                    return 1;
                }
                Console.WriteLine("device 0x{0:X4}, serial {1}, firmware 0x{2:X4}: {3}", boot.DeviceType,
                                  boot.SerialNumber, boot.FirmwareVersion, boot.Description);
                boot.Progress = (done, total) =>
                    Console.Write("\r{0,3}%  {1}/{2} bytes", (long)done * 100 / Math.Max(total, 1), done, total);
                boot.SwitchToMaxBaudRate();
                boot.EnterProgramming();
                boot.FlashFile(args[1]);
                Console.WriteLine("\ndone");
            }
            return 0;
        }
        catch (QuelworksException error)
        {
            Console.Error.WriteLine("\nflash failed: " + error.Message);
            return 1;
        }
    }
}
