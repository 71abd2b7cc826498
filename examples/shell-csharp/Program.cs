// The client of examples/shell once more: what a kiosk shell does, with lines of text in place of windows.
using System;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Text;
using System.Threading;
using System.Threading.Tasks;
using System.Xml.Linq;
using static Service;

static class Program
{
    static XElement messages;  // docs/messages.json, which the project copies beside the program
    static string token = "";  // of the unlock that is in force; in memory only
    static volatile bool signedIn, over;
    static readonly SemaphoreSlim changed = new SemaphoreSlim(0);

    static int Main() => Run().GetAwaiter().GetResult();

    static async Task<int> Run()
    {
        messages = Read(File.ReadAllBytes(Path.Combine(AppDomain.CurrentDomain.BaseDirectory, "messages.json")));
        Console.OutputEncoding = new UTF8Encoding(false);
        XElement status = await Ask("status");  // waits for 5 s: the service may be just starting
        Explain(status, "status");
        if (Is(status, "ok") && !Is(status, "enrolled"))
        {
            await Pair();
        }
        else if (Is(status, "ok") && !Is(status, "kioskSession"))
        {
            Console.WriteLine(Is(status, "provisioned") ? "Restart the computer: it is a kiosk."
                                                        : "The kiosk account is still being set up.");
        }
        else if (Is(status, "ok"))
        {
            Console.WriteLine("Terminal " + Text(status, "terminalName"));
            Task presence = ReportPresence();
            const string ask = "in, out, unlock, updates, install, power OFF SLEEP, time, dhcp {ADAPTER}, proxy [HOST:PORT], "
                + "maintenance, quit?";
            while (await Obey(Enter(ask) ?? "quit"))
            {
            }
            over = true;
            changed.Release();
            await presence;
        }
        return Is(status, "ok") ? 0 : 1;
    }

    // -- the screen ---------------------------------------------------------------------------------------------------

    static string Enter(string prompt)
    {
        Console.WriteLine(prompt);
        return Console.ReadLine();
    }

    static string EnterHidden(string prompt)
    {
        if (Console.IsInputRedirected)
        {
            return Enter(prompt) ?? "";
        }
        Console.WriteLine(prompt);
        var text = new StringBuilder();
        for (ConsoleKeyInfo key; (key = Console.ReadKey(true)).Key != ConsoleKey.Enter;)
        {
            if (key.Key != ConsoleKey.Backspace)
            {
                text.Append(key.KeyChar);
            }
            else if (text.Length > 0)
            {
                --text.Length;
            }
        }
        return text.ToString();
    }

    // A member of the message for a code that answers a command: "sentence", "again".
    static string Message(string code, string command, string member) => Text(messages.Elements().FirstOrDefault(each =>
        Text(each, "code") == code && each.Element("commands")?.Elements().All(name => name.Value != command) != true), member);

    // Says what is wrong with a reply, if anything is.
    static void Explain(XElement reply, string command)
    {
        string code = Text(reply, "error");
        string sentence = Message(code, command, "sentence");
        if (reply == null)
        {
            Console.WriteLine("The terminal's service does not answer. Please tell your administrator.");
        }
        else if (code != "")
        {
            Console.WriteLine((sentence != "" ? sentence : "That did not work. Please tell your administrator.") + $" [{code}]");
        }
    }

    // -- pairing ------------------------------------------------------------------------------------------------------

    static async Task Pair()
    {
        for (bool on = true; on;)
        {
            XElement begun = await Ask("pair.begin");
            Explain(begun, "pair.begin");
            int.TryParse(Message(Text(begun, "error"), "pair.begin", "again"), out int seconds);
            on = Is(begun, "ok") ? await ShowCode(begun) : seconds > 0;
            await Task.Delay(seconds * 1000);
        }
    }

    // Shows one code until it was entered in the portal or is of no use; true: go on with a new one.
    static async Task<bool> ShowCode(XElement begun)
    {
        Console.WriteLine("Enter this code in the portal: " + Text(begun, "code"));
        var shown = Stopwatch.StartNew();
        string said = "";
        for (; shown.Elapsed.TotalSeconds < int.Parse(Text(begun, "expiresInSeconds")); await Task.Delay(3000))
        {
            XElement reply = await Ask("pair.check", Member("code", Text(begun, "code")));
            string code = Text(reply, "error");
            string again = Message(code, "pair.check", "again");
            if (code != said)
            {
                Explain(reply, "pair.check");
            }
            said = code;
            // It is paired, too, where only the account could not be set up yet, and perhaps where the reply was lost.
            if (Is(reply, "paired") || again == "service" || (reply == null && Is(await Ask("status"), "enrolled")))
            {
                Console.WriteLine("This terminal is paired.");
                if (Is(reply, "restarting") && Enter("It restarts in a few seconds. Press Enter to restart at once.") != null)
                {
                    Explain(await Ask("restart.now"), "restart.now");
                }
                return false;
            }
            if (reply != null && !Is(reply, "ok") && again != "once")
            {
                return again == "pair";
            }
        }
        return true;
    }

    // -- the kiosk ----------------------------------------------------------------------------------------------------

    // Says who is at the terminal, every minute and at each change. A report that is lost is made good by the next.
    static async Task ReportPresence()
    {
        while (!over)
        {
            await Ask("session.report", Member("signedIn", signedIn));
            await changed.WaitAsync(60000);
        }
    }

    // Sends a terminal setting and shows one member of a good reply.
    static async Task Set(string command, string shown, params XElement[] members)
    {
        XElement reply = await Ask(command, members.Append(Member("unlockToken", token)).ToArray());
        Explain(reply, command);
        if (Is(reply, "ok"))
        {
            Console.WriteLine(shown + ": " + Text(reply, shown));
        }
    }

    static async Task Unlock()
    {
        XElement reply = await Ask("unlock", Member("password", EnterHidden("Exit password:")));
        Explain(reply, "unlock");  // never repeated by itself: each try counts
        token = Text(reply, "unlockToken");
        if (Is(reply, "ok"))
        {
            Console.WriteLine("The settings are open for " + Text(reply, "expiresInSeconds") + " s.");
        }
    }

    // Follows a search or an installation to its end.
    static async Task Updates(string command, params XElement[] members)
    {
        XElement settings = Member("unlockToken", token);
        XElement reply = await Ask(command, members.Append(settings).ToArray());
        for (; Is(reply, "checking") || Is(reply, "installing"); reply = await Ask("os.updates", settings))
        {
            Console.WriteLine(Is(reply, "installing") ? "Installing: " + Text(reply, "progress") + " %" : "Searching ...");
            await Task.Delay(1000);
        }
        Explain(reply, command);
        foreach (XElement update in reply?.Element("updates")?.Elements() ?? Enumerable.Empty<XElement>())
        {
            Console.WriteLine("Missing: " + Text(update, "title"));
        }
        if (Is(reply, "ok"))
        {
            Console.WriteLine(Is(reply, "restartRequired") ? "A restart finishes the installation." : "Nothing is going on.");
        }
    }

    // One line that the person entered; false: that was the last.
    static async Task<bool> Obey(string line)
    {
        string[] words = line.Split(new[] { ' ' }, StringSplitOptions.RemoveEmptyEntries);
        string first = words.ElementAtOrDefault(1) ?? "";
        switch (words.FirstOrDefault())
        {
            case "in":
            case "out":
                signedIn = words[0] == "in";
                changed.Release();
                break;
            case "unlock":
                await Unlock();
                break;
            case "updates":
                await Updates("os.updates", Member("check", true));
                break;
            case "install":
                await Updates("os.install");
                break;
            case "power":
                int.TryParse(first, out int off);
                int.TryParse(words.ElementAtOrDefault(2), out int sleep);
                await Set("power.set", "effective.screenOffMinutes", Member("screenOffMinutes", off), Member("sleepMinutes", sleep));
                break;
            case "time":
                await Set("time.sync", "offsetMs");
                break;
            case "dhcp":
                Console.WriteLine("Unless the portal answers within 5 minutes, the former settings come back.");
                await Set("net.set", "address", Member("adapter", first), Member("mode", "dhcp"));
                break;
            case "proxy":
                await Set("proxy.set", "server", Member("mode", first == "" ? "none" : "manual"), Member("server", first));
                break;
            case "maintenance":
                await Set("maintenance", "ok");
                break;
            case "quit":
                return false;
        }
        return true;
    }
}
