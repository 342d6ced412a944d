"""Drives a running Kodi over its JSON-RPC port (127.0.0.1:9090): turns on
its UPnP client, waits for the server named on the command line, browses
its first folder and plays every item there, each of which must start its
decoders and then stop at its end.  Prints one line per check; the exit
status is the number of failed checks."""
import json
import socket
import sys
import time


class Kodi:
    def __init__(self):
        self.sock = socket.create_connection(("127.0.0.1", 9090), timeout=30)
        self.buf, self.events, self.last_id = "", [], 0

    def read(self):  # the next message; a timeout of the socket passes up
        while True:
            text = self.buf.lstrip()
            try:
                message, end = json.JSONDecoder().raw_decode(text)
                self.buf = text[end:]
                return message
            except ValueError:
                chunk = self.sock.recv(65536)
                if not chunk:
                    raise OSError("Kodi closed the connection")
                self.buf += chunk.decode()

    def call(self, method, **params):
        self.last_id += 1
        self.sock.sendall(json.dumps({"jsonrpc": "2.0", "id": self.last_id, "method": method,
                                      "params": params}).encode())
        while (message := self.read()).get("id") != self.last_id:
            self.events.append(message)  # a notification that came first
        return message.get("result")

    def event(self, method, seconds):  # the data of the first such notification
        deadline = time.time() + seconds
        self.sock.settimeout(1)
        while time.time() < deadline:
            found = [e["params"]["data"] for e in self.events if e.get("method") == method]
            if found:
                break
            try:
                self.events.append(self.read())
            except socket.timeout:
                pass
        self.sock.settimeout(30)
        return found[0] if found else None

    def listing(self, directory):
        return self.call("Files.GetDirectory", directory=directory, media="files")["files"] or []


def connect():
    for _ in range(120):
        try:
            kodi = Kodi()
            kodi.call("JSONRPC.Ping")
            return kodi
        except OSError:
            time.sleep(0.5)
    raise SystemExit("Kodi did not answer on its JSON-RPC port")


def main(server_name):
    failures = 0

    def check(what, passed):
        nonlocal failures
        print(("ok: " if passed else "FAILED: ") + what)
        failures += not passed

    kodi = connect()
    kodi.call("Settings.SetSettingValue", setting="services.upnp", value=True)
    for _ in range(30):
        servers = [s for s in kodi.listing("upnp://") if s["label"] == server_name]
        if servers:
            break
        time.sleep(1)
    check("Kodi finds the server by SSDP", len(servers) == 1)
    folders = kodi.listing(servers[0]["file"]) if servers else []
    items = kodi.listing(folders[0]["file"]) if folders else []
    check("it lists the folder's video and track", sorted((i["label"], i["type"]) for i in items) ==
          [("Café & Crème — Ünïcode", "song"), ("clip", "movie")])
    for item in items:
        kodi.events.clear()
        kodi.call("Player.Open", item={"file": item["file"]})
        check(item["label"] + " starts playing", kodi.event("Player.OnAVStart", 20) is not None)
        stop = kodi.event("Player.OnStop", 20)
        check(item["label"] + " plays to its end", bool(stop and stop.get("end")))
    kodi.call("Application.Quit")
    return failures


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
