// The service's pipe (docs/pipe.md).
using System;
using System.IO;
using System.IO.Pipes;
using System.Runtime.InteropServices;
using System.Security.Principal;
using System.Threading;
using System.Threading.Tasks;
using Microsoft.Win32.SafeHandles;

static class Pipe
{
    // Waits while the pipe is busy, or is not there yet. IOException: somebody else serves it.
    public static async Task<Stream> Open(CancellationToken end)
    {
        var pipe = new NamedPipeClientStream(".", "NorvaneKiosk", PipeDirection.InOut, PipeOptions.Asynchronous,
            TokenImpersonationLevel.Identification);
        try
        {
            await pipe.ConnectAsync(5000, end);
            return ServedByService(pipe.SafePipeHandle) ? pipe : throw new IOException("not the service's pipe");
        }
        catch
        {
            pipe.Dispose();
            throw;
        }
    }

    // Whoever opens the name first serves it while the service does not run, so ask the service manager who the service is.
    static bool ServedByService(SafePipeHandle pipe)
    {
        const uint connect = 1, queryStatus = 4;
        IntPtr manager = OpenSCManagerW(null, null, connect);
        IntPtr service = manager == IntPtr.Zero ? IntPtr.Zero : OpenServiceW(manager, "NorvaneKiosk", queryStatus);
        bool ours = service != IntPtr.Zero
            && QueryServiceStatusEx(service, 0, out ServiceStatus status, Marshal.SizeOf<ServiceStatus>(), out _)
            && GetNamedPipeServerProcessId(pipe, out uint server) && server == status.ProcessId;
        foreach (IntPtr handle in new[] { service, manager })
        {
            if (handle != IntPtr.Zero)
            {
                CloseServiceHandle(handle);
            }
        }
        return ours;
    }

    [StructLayout(LayoutKind.Sequential)]
    struct ServiceStatus
    {
        public uint Type, State, Controls, ExitCode, SpecificExitCode, CheckPoint, WaitHint, ProcessId, Flags;
    }

    [DllImport("advapi32.dll", CharSet = CharSet.Unicode, ExactSpelling = true)]
    static extern IntPtr OpenSCManagerW(string machine, string database, uint access);

    [DllImport("advapi32.dll", CharSet = CharSet.Unicode, ExactSpelling = true)]
    static extern IntPtr OpenServiceW(IntPtr manager, string name, uint access);

    [DllImport("advapi32.dll")]
    static extern bool QueryServiceStatusEx(IntPtr service, int level, out ServiceStatus status, int size, out int needed);

    [DllImport("advapi32.dll")]
    static extern bool CloseServiceHandle(IntPtr handle);

    [DllImport("kernel32.dll")]
    static extern bool GetNamedPipeServerProcessId(SafePipeHandle pipe, out uint process);
}
