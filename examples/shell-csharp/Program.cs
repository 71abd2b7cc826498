// The client of examples/shell once more. Not compiled and not run yet; see README.md beside this file.
using System.Diagnostics;
using System.Text.Json.Nodes;

// docs/messages.json, which the project copies beside the program.
JsonArray messages = JsonNode.Parse(File.ReadAllText(Path.Combine(AppContext.BaseDirectory, "messages.json")))!.AsArray();
string token = "";  // of the unlock that is in force; in memory only
bool signedIn = false;

Console.OutputEncoding = System.Text.Encoding.UTF8;
JsonObject? status = null;
for (int i = 0; i < 3 && status == null; ++i)  // the service may be just starting
{
    status = await Pipe.Ask("status");
}
Explain(status, "status");
if (!Is(status, "ok"))
{
    return 1;
}
if (!Is(status, "enrolled"))
{
    await Pair();
}
else if (!Is(status, "kioskSession"))
{
    Console.WriteLine(Is(status, "provisioned") ? "Restart the computer: it is a kiosk."
                                                : "The kiosk account is still being set up.");
}
else
{
    Console.WriteLine("Terminal " + Text(status, "terminalName"));
    using var minute = new Timer(async _ => await Report(), null, TimeSpan.Zero, TimeSpan.FromSeconds(60));
    while (await Obey(Enter("in, out, unlock, updates, install, power OFF SLEEP, time, maintenance, quit?") ?? "quit"))
    {
    }
}
return 0;

// A report that is lost is made good by the next, a minute later.
Task<JsonObject?> Report() => Pipe.Ask("session.report", new JsonObject { ["signedIn"] = signedIn });

async Task Pair()
{
    while (true)
    {
        JsonObject? begun = await Pipe.Ask("pair.begin");
        Explain(begun, "pair.begin");
        if (Is(begun, "ok"))
        {
            if (!await ShowCode(begun!))
            {
                return;
            }
        }
        else if (int.TryParse(Message(Text(begun, "error"), "pair.begin", "again"), out int seconds))
        {
            await Task.Delay(seconds * 1000);
        }
        else
        {
            return;
        }
    }
}

// Shows one code until it was entered in the portal or is of no use; true: go on with a new one.
async Task<bool> ShowCode(JsonObject begun)
{
    Console.WriteLine("Enter this code in the portal: " + Text(begun, "code"));
    var shown = Stopwatch.StartNew();
    string said = "";
    for (; shown.Elapsed.TotalSeconds < int.Parse(Text(begun, "expiresInSeconds")); await Task.Delay(3000))
    {
        JsonObject? reply = await Pipe.Ask("pair.check", new JsonObject { ["code"] = Text(begun, "code") });
        string code = Text(reply, "error");
        string again = Message(code, "pair.check", "again");
        if (code != said)
        {
            Explain(reply, "pair.check");
        }
        said = code;
        // It is paired, too, where only the account could not be set up yet, and perhaps where the reply was lost.
        if (Is(reply, "paired") || again == "service" || (reply == null && Is(await Pipe.Ask("status"), "enrolled")))
        {
            Console.WriteLine("This terminal is paired.");
            if (Is(reply, "restarting") && Enter("It restarts in a few seconds. Press Enter to restart at once.") != null)
            {
                Explain(await Pipe.Ask("restart.now"), "restart.now");
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

// One line that the person entered; false: that was the last.
async Task<bool> Obey(string line)
{
    string[] words = line.Split(' ', StringSplitOptions.RemoveEmptyEntries);
    switch (words.FirstOrDefault())
    {
        case "in" or "out":
            signedIn = words[0] == "in";
            await Report();
            break;
        case "unlock":
            await Unlock();
            break;
        case "updates":
            await Updates("os.updates", new JsonObject { ["check"] = true });
            break;
        case "install":
            await Updates("os.install", new JsonObject());
            break;
        case "power" when words.Length == 3 && int.TryParse(words[1], out int off) && int.TryParse(words[2], out int sleep):
            await Setting("power.set", new JsonObject { ["screenOffMinutes"] = off, ["sleepMinutes"] = sleep });
            break;
        case "time":
            Console.WriteLine("offsetMs: " + Text(await Setting("time.sync", new JsonObject()), "offsetMs"));
            break;
        case "maintenance":
            await Setting("maintenance", new JsonObject());
            break;
        case "quit":
            return false;
    }
    return true;
}

async Task Unlock()
{
    // A shell with windows has a field that hides what is entered.
    JsonObject? reply = await Pipe.Ask("unlock", new JsonObject { ["password"] = Enter("Exit password:") ?? "" });
    Explain(reply, "unlock");  // never repeated by itself: each try counts
    token = Text(reply, "unlockToken");
    if (Is(reply, "ok"))
    {
        Console.WriteLine("The settings are open for " + Text(reply, "expiresInSeconds") + " s.");
    }
}

async Task<JsonObject?> Setting(string command, JsonObject members)
{
    members["unlockToken"] = token;
    JsonObject? reply = await Pipe.Ask(command, members);
    Explain(reply, command);
    return reply;
}

// Follows a search or an installation to its end.
async Task Updates(string command, JsonObject members)
{
    JsonObject? reply = await Setting(command, members);
    while (Is(reply, "checking") || Is(reply, "installing"))
    {
        Console.WriteLine(Is(reply, "installing") ? "Installing: " + Text(reply, "progress") + " %" : "Searching ...");
        await Task.Delay(1000);
        reply = await Setting("os.updates", new JsonObject());
    }
    foreach (JsonNode? update in reply?["updates"]?.AsArray() ?? new JsonArray())
    {
        Console.WriteLine("Missing: " + Text(update as JsonObject, "title"));
    }
}

string? Enter(string prompt)
{
    Console.WriteLine(prompt);
    return Console.ReadLine();
}

bool Is(JsonObject? reply, string member) =>
    reply?[member] is JsonValue value && value.TryGetValue(out bool yes) && yes;

string Text(JsonObject? reply, string member) => reply?[member]?.ToString() ?? "";

// A member of the message for a code that answers a command: "sentence", "again".
string Message(string code, string command, string member) => Text(messages.OfType<JsonObject>().FirstOrDefault(each =>
    Text(each, "code") == code
    && (each["commands"] is not JsonArray commands || commands.Any(name => name?.ToString() == command))), member);

// Says what is wrong with a reply, if anything is.
void Explain(JsonObject? reply, string command)
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
