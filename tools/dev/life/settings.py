"""What an administrator at the terminal can set of the computer: its address and its proxy."""

from .account import unlocked

ADAPTER = "{4C2A9E10-7B5D-4E6F-8A01-9D3C5B7E1F20}"  # of every simulated computer


def a_fixed_address_and_back(stage):
    """Network: a fixed address, and back to DHCP."""
    token = unlocked(stage)
    code, text = stage.kioskctl("net-set", token, ADAPTER, "10.1.2.3/24", "10.9.9.9", development=True)
    stage.check(code == 1 and "[invalid]" in text, "a gateway of another network is refused", text)
    code, text = stage.kioskctl("net-set", token, ADAPTER, "10.1.2.3/24", "10.1.2.1", "10.1.2.1", "9.9.9.9", development=True)
    now = stage.machine_lines("adapter ")[1]
    stage.check(code == 0 and f"adapter {ADAPTER} static [10.1.2.3/24] [10.1.2.1] [10.1.2.1 9.9.9.9]" in now,
                "the adapter has the address, the gateway and the name servers", (text, now))
    code, text = stage.kioskctl("net-set", token, ADAPTER, "dhcp", development=True)
    before, now = stage.machine_lines("adapter ")
    stage.check(code == 0 and now == before, "with DHCP it is what it was before", (text, now))


def a_proxy_and_back(stage):
    """Proxy: a named one, and back to none."""
    token = unlocked(stage)
    code, text = stage.kioskctl("proxy-set", token, "manual", "user@proxy.test:8080", development=True)
    stage.check(code == 1 and "[invalid]" in text, "a proxy with a user's name in it is refused", text)
    code, text = stage.kioskctl("proxy-set", token, "manual", "proxy.test:8080", "*.test;<local>", development=True)
    now = stage.machine_lines("proxy ")[1]
    stage.check(code == 0 and now == ["proxy proxy.test:8080 except *.test;<local>"], "the computer has the proxy", now)
    code, text = stage.kioskctl("proxy-set", token, "none", development=True)
    before, now = stage.machine_lines("proxy ")
    stage.check(code == 0 and now == before, "it has none again, as before", now)
