// One request to the kiosk service and its reply (docs/pipe.md). Not compiled and not run yet; see README.md beside this file.
using System.IO.Pipes;
using System.Runtime.InteropServices;
using System.Security.Principal;
using System.Text;
using System.Text.Json;
using System.Text.Json.Nodes;
using Microsoft.Win32.SafeHandles;

static class Pipe
{
    // The longest times of docs/pipe.md, 15 s for the check of the caller included.
    static TimeSpan Patience(string command) => TimeSpan.FromSeconds(command switch
    {
        "net.set" => 750,
        "pair.check" => 600,
        "pair.begin" => 300,
        "unlock" or "maintenance" => 240,
        "time.sync" or "power.set" => 150,
        _ => 30,
    });

    // Null: no service, somebody else's pipe, or no reply in time. A password stays in the memory of this process for a
    // while, for texts of .NET cannot be overwritten.
    public static async Task<JsonObject?> Ask(string command, JsonObject? members = null)
    {
        JsonObject request = members ?? new JsonObject();
        request["cmd"] = command;
        byte[] line = Encoding.UTF8.GetBytes(request.ToJsonString() + "\n");
        try
        {
            using var patience = new CancellationTokenSource(Patience(command));
            await using var pipe = new NamedPipeClientStream(".", "NorvaneKiosk", PipeDirection.InOut,
                PipeOptions.Asynchronous, TokenImpersonationLevel.Identification);
            await pipe.ConnectAsync(5000, patience.Token);  // waits while the pipe is busy, or is not there yet
            if (!ServedByService(pipe.SafePipeHandle))
            {
                return null;
            }
            await pipe.WriteAsync(line, patience.Token);
            using var reader = new StreamReader(pipe, Encoding.UTF8);
            string? reply = await reader.ReadLineAsync(patience.Token);
            return reply == null ? null : JsonNode.Parse(reply) as JsonObject;
        }
        catch (Exception e) when (e is IOException or TimeoutException or OperationCanceledException or JsonException
            or UnauthorizedAccessException)
        {
            return null;
        }
        finally
        {
            Array.Clear(line);
        }
    }

    // Whoever opens the name first serves it while the service does not run, so ask the service manager who the service is.
    static bool ServedByService(SafePipeHandle pipe)
    {
        const uint connect = 1, queryStatus = 4;
        IntPtr manager = OpenSCManagerW(null, null, connect);
        IntPtr service = manager == IntPtr.Zero ? IntPtr.Zero : OpenServiceW(manager, "NorvaneKiosk", queryStatus);
        try
        {
            return service != IntPtr.Zero
                && QueryServiceStatusEx(service, 0, out ServiceStatus status, Marshal.SizeOf<ServiceStatus>(), out _)
                && GetNamedPipeServerProcessId(pipe, out uint server) && server == status.ProcessId;
        }
        finally
        {
            foreach (IntPtr handle in new[] { service, manager })
            {
                if (handle != IntPtr.Zero)
                {
                    CloseServiceHandle(handle);
                }
            }
        }
    }

    [StructLayout(LayoutKind.Sequential)]
    struct ServiceStatus
    {
        public uint Type, State, Controls, ExitCode, SpecificExitCode, CheckPoint, WaitHint, ProcessId, Flags;
    }

    [DllImport("advapi32.dll", CharSet = CharSet.Unicode, ExactSpelling = true)]
    static extern IntPtr OpenSCManagerW(string? machine, string? database, uint access);

    [DllImport("advapi32.dll", CharSet = CharSet.Unicode, ExactSpelling = true)]
    static extern IntPtr OpenServiceW(IntPtr manager, string name, uint access);

    [DllImport("advapi32.dll")]
    static extern bool QueryServiceStatusEx(IntPtr service, int level, out ServiceStatus status, int size, out int needed);

    [DllImport("advapi32.dll")]
    static extern bool CloseServiceHandle(IntPtr handle);

    [DllImport("kernel32.dll")]
    static extern bool GetNamedPipeServerProcessId(SafePipeHandle pipe, out uint process);
}
