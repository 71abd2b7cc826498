// Takes the place of the example's Pipe.cs where no Windows is: the way to test_shell_csharp.py, which asks the service.
using System;
using System.IO;
using System.Net.Sockets;
using System.Threading;
using System.Threading.Tasks;

static class Pipe
{
    public static async Task<Stream> Open(CancellationToken end)
    {
        var client = new TcpClient();
        await client.ConnectAsync("127.0.0.1", int.Parse(Environment.GetEnvironmentVariable("PIPE_PORT")));
        return client.GetStream();
    }
}
