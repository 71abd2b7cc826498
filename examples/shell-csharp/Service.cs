// One request to the kiosk service and its reply (docs/pipe.md).
using System;
using System.IO;
using System.Linq;
using System.Runtime.Serialization.Json;
using System.Threading;
using System.Threading.Tasks;
using System.Xml;
using System.Xml.Linq;

static class Service
{
    // The longest times of docs/pipe.md, 15 s for the check of the caller included.
    static int PatienceInSeconds(string command)
    {
        switch (command)
        {
            case "net.set": return 750;
            case "pair.check": return 600;
            case "pair.begin": return 300;
            case "unlock": case "maintenance": return 240;
            case "time.sync": case "power.set": return 150;
            default: return 30;
        }
    }

    // Null: no service, somebody else's pipe, or no reply in time. A password stays in the memory of this process for a
    // while, for texts of .NET cannot be overwritten.
    public static async Task<XElement> Ask(string command, params XElement[] members)
    {
        byte[] line = Write(new XElement("root", new XAttribute("type", "object"), Member("cmd", command), members));
        try
        {
            using (var end = new CancellationTokenSource(PatienceInSeconds(command) * 1000))
            using (Stream pipe = await Pipe.Open(end.Token))
            using (end.Token.Register(pipe.Dispose))  // which ends a transfer on every .NET
            {
                await pipe.WriteAsync(line, 0, line.Length);
                return await ReadLine(pipe);
            }
        }
        catch (Exception e) when (e is IOException || e is ObjectDisposedException || e is TimeoutException
            || e is OperationCanceledException || e is UnauthorizedAccessException || e is XmlException || e is FormatException)
        {
            return null;
        }
        finally
        {
            Array.Clear(line, 0, line.Length);
        }
    }

    static async Task<XElement> ReadLine(Stream pipe)
    {
        var reply = new MemoryStream();
        var chunk = new byte[4096];
        int count;
        do
        {
            count = await pipe.ReadAsync(chunk, 0, chunk.Length);
            reply.Write(chunk, 0, count);
        } while (count > 0 && chunk[count - 1] != '\n');  // one line is all that comes
        return count > 0 ? Read(reply.ToArray()) : null;
    }

    // -- JSON, as .NET Framework has it: an object's members are elements by their names, those of an array are "item" --

    public static XElement Read(byte[] json) =>
        XElement.Load(JsonReaderWriterFactory.CreateJsonReader(json, XmlDictionaryReaderQuotas.Max));

    // A member of a request; the value is a text, an int or a bool.
    public static XElement Member(string name, object value) =>
        new XElement(name, new XAttribute("type", value is bool ? "boolean" : value is int ? "number" : "string"), value);

    static byte[] Write(XElement json)
    {
        var line = new MemoryStream();
        using (XmlDictionaryWriter writer = JsonReaderWriterFactory.CreateJsonWriter(line))
        {
            json.WriteTo(writer);
        }
        return line.ToArray().Append((byte)'\n').ToArray();
    }

    // "ok", or "effective.sleepMinutes"; empty when it is not there.
    public static string Text(XElement reply, string path) =>
        path.Split('.').Aggregate(reply, (at, name) => at?.Element(name))?.Value ?? "";

    public static bool Is(XElement reply, string path) => Text(reply, path) == "true";
}
