"""An operator's first days with the packages, under load, on the machine that scripts/day-two has made.

It enables the agent, has it program a route that packets take, and then, while clients call and packets flow, upgrades
the packages, restarts the agent, rotates logs and certificates and kills the agent; at last it removes the packages.
Every call carries a number of its own, by which answers and records are compared.

usage: day_two.py RESTARTS PACKAGE...    the packages to upgrade to
"""

import glob
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

os.environ["GRPC_VERBOSITY"] = "NONE"
import grpc  # noqa: E402

RESTARTS = int(sys.argv[1])
PACKAGES = sys.argv[2:]
SOCKET = "unix:/run/vorn/routing-agent.sock"
CHECK = "/grpc.health.v1.Health/Check"
PORT = 50051
TLS = pathlib.Path("/etc/vorn/tls")
AUTHORITY = pathlib.Path("/root/authority")
CALLS = "/var/log/vorn/calls.json"
SERVICE = "vorn-routing-agent.service"
FAR = "198.51.100.1"  # behind the route
LOCAL_CLIENTS = 3
RENAMES = 8
CERTIFICATES = 4


def run(*words: str) -> str:
    done = subprocess.run(words, capture_output=True, text=True, timeout=120)
    if done.returncode != 0:
        sys.exit(f"{' '.join(words)}: exit code {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout


def until(what: str, holds: Callable[[], object]) -> None:
    end = time.monotonic() + 60
    while not holds():
        if time.monotonic() > end:
            print(subprocess.run(["journalctl", "-qn", "40"], capture_output=True, text=True).stdout)
            sys.exit(f"not within a minute: {what}")
        time.sleep(0.05)


class Client(threading.Thread):
    """Calls the agent all the time; notes each call's number, and which were answered."""

    numbers = iter(range(1, sys.maxsize))

    def __init__(self) -> None:
        super().__init__(daemon=True)
        self.answered = set[str]()
        self.failed: list[str] = []
        self.over = threading.Event()

    def call(self, channel: grpc.Channel) -> None:
        number = f"{next(Client.numbers):032x}"
        read = channel.unary_unary("/routing_agent.State/Read")
        try:
            read(b"", timeout=60, metadata=[("traceparent", f"00-{number}-00000000000000ff-01")])
            self.answered.add(number)
        except grpc.RpcError as error:
            self.failed.append(f"{error.code().name}: {error.details()}")
            time.sleep(0.05)  # gRPC gives a call that comes at once to the connection that has just broken

    def finish(self) -> None:
        self.over.set()
        self.join()


class LocalClient(Client):
    """Keeps its connection."""

    def run(self) -> None:
        credentials = grpc.local_channel_credentials(grpc.LocalConnectionType.UDS)
        with grpc.secure_channel(SOCKET, credentials, [("grpc.initial_reconnect_backoff_ms", 50)]) as channel:
            while not self.over.is_set():
                self.call(channel)


class TlsClient(Client):
    """Connects for each call, with TLS."""

    def run(self) -> None:
        files = [(AUTHORITY / name).read_bytes() for name in ("ca.pem", "client.key", "client.pem")]
        credentials = grpc.ssl_channel_credentials(*files)
        own = [("grpc.use_local_subchannel_pool", 1), ("grpc.ssl_target_name_override", "agent")]
        while not self.over.is_set():
            with grpc.secure_channel(f"127.0.0.1:{PORT}", credentials, own) as channel:
                self.call(channel)
            time.sleep(0.01)


class BusyClient:
    """h2load with 64 calls in flight on one connection: it goes when the agent tells it to."""

    numbers = iter(range(1, sys.maxsize))

    def __init__(self) -> None:
        self.number = f"{next(BusyClient.numbers):016x}{'b' * 16}"

    def start(self) -> None:
        empty = pathlib.Path("/root/empty-message")
        empty.write_bytes(bytes(5))
        command = ["h2load", "-n", "100000000", "-c", "1", "-m", "64", "-B", SOCKET, "-d", str(empty)]
        for header in ("te: trailers", "content-type: application/grpc", f"traceparent: 00-{self.number}-{1:016x}-01"):
            command += ["-H", header]
        self.process = subprocess.Popen([*command, f"http://agent{CHECK}"], stdout=subprocess.PIPE, text=True)

    def is_recorded(self) -> bool:
        return self.number in pathlib.Path(CALLS).read_text()

    def answered(self) -> int:
        """How many of its calls, once it has gone."""
        told = self.process.communicate()[0]
        found = re.search(r"(\d+) succeeded", told)
        if not found or found[1] == "0":
            sys.exit(f"h2load: {told}")
        return int(found[1])


class Packets:
    """Packets through the route, 500 a second."""

    def __init__(self) -> None:
        self.told = tempfile.TemporaryFile("w+")
        self.process = subprocess.Popen(["ping", "-n", "-i", "0.002", FAR], stdout=self.told)

    def finish(self) -> tuple[int, int]:
        """How many there were up to the last that came back, and how many of these did not."""
        self.process.terminate()
        self.process.wait()
        self.told.seek(0)
        came = [int(found) for found in re.findall(r"icmp_seq=(\d+) ttl", self.told.read())]
        return max(came, default=0), max(came, default=0) - len(set(came))


class Table:
    """What happened, row by row. Zero is what is asked for, but for what a kill may cost."""

    def __init__(self) -> None:
        self.rows: list[tuple[str, int, int, int, int, set[str]]] = []
        self.wrong: list[str] = []

    def phase(self, name: str, act: Callable[[], None], failures: int = 0) -> None:
        packets = Packets()
        clients: list[Client] = [*(LocalClient() for _ in range(LOCAL_CLIENTS)), TlsClient()]
        for client in clients:
            client.start()
        until("each client is answered", lambda: all(len(client.answered) > 10 for client in clients))
        act()
        before = [len(client.answered) for client in clients]
        until("and again", lambda: all(len(c.answered) > n + 10 for c, n in zip(clients, before, strict=True)))
        for client in clients:
            client.finish()
        sent, lost = packets.finish()
        failed = [failure for client in clients for failure in client.failed]
        answered = set[str]().union(*(client.answered for client in clients))
        self.rows.append((name, len(answered) + len(failed), len(failed), sent, lost, answered))
        if len(failed) > failures:
            self.wrong += [f"{name}: {failure}" for failure in failed]
        if lost or sent == 0:
            self.wrong.append(f"{name}: {lost} of {sent} packets lost")

    def phase_of_h2load(self, name: str) -> None:
        """Restarts under more calls than are told apart: they are counted, as are their records."""
        packets, busy, answered = Packets(), [BusyClient() for _ in range(RESTARTS)], 0
        for client in busy:
            client.start()
            until("h2load is answered", client.is_recorded)
            restart_once()
            answered += client.answered()
        sent, lost = packets.finish()
        numbers = {client.number for client in busy}
        ends = [record["end"] for record in records() if number_of(record) in numbers]
        failed = len(ends) - ends.count("answered")
        self.rows.append((name, len(ends), failed, sent, lost, set()))
        if failed or lost or answered != len(ends):
            self.wrong.append(f"{name}: {failed} failed, {lost} packets lost, {answered} answers, {len(ends)} records")

    def tell(self, recorded: set[str], may_lose: str) -> None:
        print("| under load | calls | failed | packets | lost | records lost |")
        print("|---|--:|--:|--:|--:|--:|")
        for name, calls, failed, sent, lost, answered in self.rows:
            missing = len(answered - recorded)
            print(f"| {name} | {calls} | {failed} | {sent} | {lost} | {missing} |")
            if missing and name != may_lose:
                self.wrong.append(f"{name}: {missing} records lost")


def certificate(name: str, *authority: str) -> None:
    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", f"{AUTHORITY}/{name}.key"]
    names = ["-subj", f"/CN={name}", "-addext", "subjectAltName=DNS:agent", "-days", "30"]
    run("openssl", "req", "-x509", *key, *names, *authority, "-out", f"{AUTHORITY}/{name}.pem")


def signed(name: str) -> None:
    ca = ["-CA", f"{AUTHORITY}/ca.pem", "-CAkey", f"{AUTHORITY}/ca.key"]
    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", f"{AUTHORITY}/{name}.key"]
    request = f"{AUTHORITY}/{name}.csr"
    (AUTHORITY / "names").write_text("subjectAltName=DNS:agent\n")
    run("openssl", "req", *key, "-subj", f"/CN={name}", "-out", request)
    extensions = ["-extfile", f"{AUTHORITY}/names", "-days", "30"]
    run("openssl", "x509", "-req", "-in", request, *ca, *extensions, "-out", f"{AUTHORITY}/{name}.pem")


def deploy(name: str) -> None:
    """Puts a new certificate of the agent in the place of the former one."""
    signed(name)
    for ending in ("pem", "key"):
        run("install", "-m", "0640", "-g", "routing-agent", f"{AUTHORITY}/{name}.{ending}", f"{TLS}/agent.{ending}")


def configure() -> None:
    """A neighbour behind a link, certificates, and options for both."""
    for command in (
        "ip netns add far",
        "ip link add uplink type veth peer name far netns far",
        "ip addr add 192.0.2.1/24 dev uplink",
        "ip link set uplink up",
        "ip -n far addr add 192.0.2.2/24 dev far",
        f"ip -n far addr add {FAR}/32 dev lo",
        "ip -n far link set lo up",
        "ip -n far link set far up",
    ):
        run(*command.split())
    socket = pathlib.Path("/etc/systemd/system/vorn-routing-agent.socket.d")
    socket.mkdir()
    (socket / "tcp.conf").write_text(f"[Socket]\nListenStream=127.0.0.1:{PORT}\n")
    run("systemctl", "daemon-reload")
    AUTHORITY.mkdir()
    TLS.mkdir()
    certificate("ca")
    signed("client")
    deploy("server-0")
    run("install", "-m", "0644", f"{AUTHORITY}/ca.pem", f"{TLS}/authorities.pem")
    with open("/etc/vorn/routing-agent.conf", "a") as file:
        file.write(
            f"""
tls-cert = "{TLS}/agent.pem"
tls-key = "{TLS}/agent.key"
client-ca = "{TLS}/authorities.pem"
program-kernel = true
keep-routes = true
accounting = ["json:{CALLS}"]
"""
        )


def vornctl(*words: str) -> str:
    return run("vornctl", "--server", SOCKET, "--local", *words)


def upgrade() -> None:
    run("dpkg", "--install", *PACKAGES)


def restart() -> None:
    for _ in range(RESTARTS):
        restart_once()


def restart_once() -> None:
    run("systemctl", "restart", SERVICE)


def rename_logs() -> None:
    for _ in range(RENAMES):
        enough = os.path.getsize(CALLS) + (1 << 20)  # some 2,500 records
        until("records are written", lambda enough=enough: os.path.getsize(CALLS) > enough)  # type: ignore[misc]
        run("logrotate", "--force", "/etc/logrotate.d/vorn-routing-agent")
        until("the log is open again", lambda: os.path.exists(CALLS))


def served() -> str:
    shown = subprocess.run(
        ["openssl", "s_client", "-connect", f"127.0.0.1:{PORT}", "-alpn", "h2", "-brief"],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=60,
    ).stderr
    return shown.partition("Peer certificate: CN = ")[2].partition("\n")[0]


def renew_certificates() -> None:
    for number in range(1, CERTIFICATES + 1):
        name = f"server-{number}"
        deploy(name)
        until(f"{name} is served", lambda name=name: served() == name)  # type: ignore[misc]


def kill() -> None:
    before = run("systemctl", "show", "-P", "MainPID", SERVICE)
    os.kill(int(before), 9)
    until(
        "another agent serves",
        lambda: run("systemctl", "show", "-P", "ActiveState", SERVICE) == "active\n"
        and run("systemctl", "show", "-P", "MainPID", SERVICE) != before,
    )


def records() -> Iterator[dict[str, Any]]:
    """Those in any of the files."""
    for name in glob.glob(f"{CALLS}*"):
        text = subprocess.run(["zcat", "-f", name], capture_output=True, text=True, check=True).stdout
        yield from map(json.loads, text.splitlines())


def number_of(record: dict[str, Any]) -> str:
    return str(record.get("traceparent", "--")).split("-")[1]


def remove() -> list[str]:
    """Removes the packages; answers what is left."""
    run("dpkg", "--purge", "vornctl", "vorn-routing-agent", "libvornsdkrpc0.1")
    places = ["/etc/vorn/*.*", "/etc/logrotate.d/vorn*", "/var/log/vorn*", "/run/vorn*", "/usr/sbin/routing_agent"]
    places += ["/etc/systemd/system/*.wants/vorn*", "/usr/share/vornctl*", "/usr/lib/*/libVorn*", "/var/lib/vorn*"]
    return [name for place in places for name in glob.glob(place)]


def main() -> None:
    table = Table()
    configure()
    run("systemctl", "enable", "--now", "vorn-routing-agent.socket", SERVICE)
    vornctl("set", "group", "core", "nexthop", "192.0.2.2", "--wait")
    vornctl("set", "route", f"{FAR}/32", "group", "core", "--wait")
    assert "proto 201" in run("ip", "route", "get", "fibmatch", FAR)
    table.phase("nothing", lambda: None)
    former = vornctl("list", "routes")
    table.phase("upgrade", upgrade)
    table.phase(f"{RESTARTS} restarts", restart)
    table.phase_of_h2load(f"{RESTARTS} restarts, h2load")
    table.phase(f"{RENAMES} log rotations", rename_logs)
    table.phase(f"{CERTIFICATES} certificates", renew_certificates)
    table.phase("kill -9", kill, failures=LOCAL_CLIENTS + 1)
    assert vornctl("list", "routes") == former, "the routes are others"
    run("systemctl", "stop", SERVICE)
    table.tell({number_of(record) for record in records()}, "kill -9")
    left = remove()
    if left:
        table.wrong.append(f"left behind: {' '.join(left)}")
    for what in table.wrong[:50]:
        print(what)
    sys.exit(1 if table.wrong else 0)


main()
