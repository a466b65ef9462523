#!/usr/bin/env python3
"""Measures the daemon over HTTP, as ratios to a bare server and to nginx in the same run.

Usage: http_bench.py [--quick] BUILD_FOLDER

Everything runs on 127.0.0.1 in a temporary folder and ends on its own. Targets are printed with the figures; a missed
target is not a failure, but a figure that could not be measured is.
"""
import argparse
import contextlib
import json
import os
import pathlib
import random
import resource
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

CONNECTIONS = (1, 8, 64)
STALLED_CALLS = 200
STALL_CONNECTIONS = 8
IDLE_CONNECTIONS = 5000
STARTS = 5

TARGET_RATIO_TO_BARE = 0.6
TARGET_MEMORY_MIB = 40
TARGET_START_MS = 200
TARGET_STALL_RATIO = 1.25

GET = "/webapi/VEXA.Virtualization.Guest/get"

# Requests are rendered before the clock starts. Latencies come back in microseconds.
WRK_SCRIPT = """
local requests = {}
function init(args)
  math.randomseed(os.time())
  local headers = {["Content-Type"] = "application/json"}
  if args[2] ~= "" then headers["Authorization"] = "Bearer " .. args[2] end
  for id in io.lines(args[1]) do
    if args[2] == "" then
      requests[#requests + 1] = wrk.format("GET", nil, headers)
    else
      requests[#requests + 1] = wrk.format("POST", nil, headers, '{"guest_id":"' .. id .. '"}')
    end
  end
end
function request() return requests[math.random(#requests)] end
function done(summary, latency)
  local e = summary.errors
  io.write(string.format('JSON{"requests":%d,"us":%d,"p50":%d,"p99":%d,"errors":%d}\\n', summary.requests,
    summary.duration, latency:percentile(50), latency:percentile(99),
    e.connect + e.read + e.write + e.status + e.timeout))
end
"""


class MeasurementError(Exception):
    """A figure could not be measured."""


def call(port, path, token, body="{}"):
    request = urllib.request.Request(f"http://127.0.0.1:{port}{path}", body.encode(), {
        "Content-Type": "application/json", "Authorization": f"Bearer {token}"})
    with urllib.request.urlopen(request, timeout=10) as reply:
        return reply.read()


def metric(port, name):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=10) as reply:
        for line in reply.read().decode().splitlines():
            if line.startswith(name + " "):
                return float(line.split()[-1])
    raise MeasurementError(f"/metrics does not contain {name}")


def process_status(pid, field):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1])
    raise MeasurementError(f"/proc/{pid}/status does not contain {field}")


def wait_until(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise MeasurementError(f"{what}: not within {seconds} s")
        time.sleep(0.005)


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def is_answering(port, path="/healthz"):
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=1) as reply:
            return reply.status == 200
    except OSError:
        return False


class Wrk:
    """Runs wrk with requests for guests in random order."""

    def __init__(self, folder, id_lists):
        self.script = folder / "get.lua"
        self.script.write_text(WRK_SCRIPT)
        self.files = {}
        for name, ids in id_lists.items():
            self.files[name] = folder / f"{name}.ids"
            self.files[name].write_text("\n".join(ids) + "\n")

    def run(self, port, path, connections, seconds, ids, token):
        """Without a token, sends plain GETs."""
        done = subprocess.run(
            ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--timeout", "10s", "-s", str(self.script),
             f"http://127.0.0.1:{port}{path}", "--", str(self.files[ids]), token],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=seconds + 20, check=False)
        lines = [line[4:] for line in done.stdout.splitlines() if line.startswith("JSON")]
        if done.returncode != 0 or not lines:
            raise MeasurementError(f"wrk failed: {done.stdout.strip()}")
        figures = json.loads(lines[-1])
        if figures["errors"] or not figures["requests"]:
            raise MeasurementError(f"{figures['errors']} of {figures['requests']} requests failed on {path}")
        return {"rate": figures["requests"] / figures["us"] * 1e6, "p50": figures["p50"], "p99": figures["p99"]}


def wait_or_kill(process, seconds):
    """Waits for the end of the process, and kills it after the time."""
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(timeout=seconds)
    process.kill()
    process.wait()


@contextlib.contextmanager
def bench_host(build, folder):
    with open(folder / "host.log", "w+", encoding="utf-8") as log:
        process = subprocess.Popen([build / "bench/http_bench_host", folder / "data"], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=log, text=True)
        try:
            line = process.stdout.readline()
            if not line:
                process.wait(timeout=10)
                log.seek(0)
                raise MeasurementError(f"the host did not start: {log.read().strip()}")
            yield json.loads(line)
        finally:
            process.stdin.close()
            wait_or_kill(process, 15)


@contextlib.contextmanager
def nginx(folder, reply, workers):
    """Serves the bytes of a reply as a static file."""
    port = free_port()
    root = folder / "nginx"
    root.mkdir()
    (root / "get").write_text(reply)
    temporary = "".join(f"{kind}_temp_path {root};" for kind in
                        ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    (root / "nginx.conf").write_text(f"""
        daemon off; master_process on; worker_processes {workers}; pid {root}/pid;
        events {{ worker_connections 1024; }}
        http {{
          access_log off; {temporary} keepalive_requests 1000000000; keepalive_timeout 75s; sendfile on;
          open_file_cache max=10; default_type application/json;
          server {{ listen 127.0.0.1:{port}; root {root}; }}
        }}""")
    # When started as root, nginx would switch to a user who cannot access the folder.
    user = ["-g", "user root;"] if os.geteuid() == 0 else []
    process = subprocess.Popen(["/usr/sbin/nginx", "-p", root, "-e", root / "error.log", "-c", root / "nginx.conf",
                                *user],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: is_answering(port, "/get"), 5, "nginx's first answer")
        yield port
    finally:
        process.terminate()
        wait_or_kill(process, 5)


@contextlib.contextmanager
def real_daemon(build, data, log):
    """Starts vexad. Yields its process id, its port, and the milliseconds from its exec to its first answer."""
    port = free_port()
    command = [build / "host/daemon/vexad", "--data", data, "--listen", f"127.0.0.1:{port}", "--socket", "",
               "--log", "stderr"]
    started = time.monotonic()
    process = subprocess.Popen(command, stdout=log, stderr=log)
    try:
        request = b"GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"
        while True:
            try:
                with socket.create_connection(("127.0.0.1", port), 5) as client:
                    client.sendall(request)
                    if client.recv(100).startswith(b"HTTP/1.1 200"):
                        break
            except ConnectionError:
                pass
            if process.poll() is not None or time.monotonic() - started > 10:
                lines = pathlib.Path(log.name).read_text(encoding="utf-8").strip().splitlines()
                raise MeasurementError(f"vexad did not start: {lines[-1] if lines else 'its log is empty'}")
            time.sleep(0.001)
        yield process.pid, port, (time.monotonic() - started) * 1000
    finally:
        process.terminate()
        wait_or_kill(process, 10)


def with_verdict(value, met, target):
    return f"{value}   (target: {target}: {'met' if met else 'MISSED'})"


def measure_rates(wrk, host, nginx_port, rounds, seconds):
    tokens = host["tokens"]
    targets = {
        "get, administrator": (host["port"], GET, "all", tokens["admin"]),
        f"get, user of {host['granted_to_some']} guests": (host["port"], GET, "some", tokens["some"]),
        "get, user of 1,000 guests": (host["port"], GET, "all", tokens["all"]),
        "bare handler": (host["bare_port"], GET, "all", tokens["admin"]),
        "nginx, static file": (nginx_port, "/get", "all", ""),
    }
    results = {(name, count): [] for name in targets for count in CONNECTIONS}
    for port, path, ids, token in targets.values():  # warm up caches and pools
        wrk.run(port, path, 64, 1, ids, token)
    for _ in range(rounds):
        for count in CONNECTIONS:
            for name in random.sample(list(targets), len(targets)):  # in another order each time
                port, path, ids, token = targets[name]
                results[name, count].append(wrk.run(port, path, count, seconds, ids, token))

    def median(name, count, figure):
        return statistics.median(result[figure] for result in results[name, count])

    print(f"\n{len(host['reply'])} bytes a reply, median of {rounds} rounds of {seconds} s\n")
    print(f"{'':28}{'conn.':>6}{'requests/s':>12}{'of bare':>9}{'of nginx':>10}{'p50 ms':>9}{'p99 ms':>9}")
    for count in CONNECTIONS:
        for name in targets:
            rate = median(name, count, "rate")
            print(f"{name:28}{count:6}{rate:12,.0f}{rate / median('bare handler', count, 'rate'):9.2f}"
                  f"{rate / median('nginx, static file', count, 'rate'):10.2f}"
                  f"{median(name, count, 'p50') / 1000:9.2f}{median(name, count, 'p99') / 1000:9.2f}")
    print()
    for name in list(targets)[:3]:
        ratio = median(name, 64, "rate") / median("bare handler", 64, "rate")
        print(f"{name}, of the bare handler at 64 connections: "
              + with_verdict(f"{ratio:.2f}", ratio >= TARGET_RATIO_TO_BARE, f"at least {TARGET_RATIO_TO_BARE}"))


@contextlib.contextmanager
def stalled_calls(port, tokens, count):
    body = b"{}"
    sockets = []
    tokens = list(tokens.values())
    try:
        for number in range(count):
            client = socket.create_connection(("127.0.0.1", port), 5)
            sockets.append(client)
            client.sendall(b"POST /webapi/VEXA.Bench/stall HTTP/1.1\r\nHost: localhost\r\n"
                           b"Content-Type: application/json\r\nAuthorization: Bearer "
                           + tokens[number % len(tokens)].encode()
                           + b"\r\nContent-Length: " + str(len(body)).encode() + b"\r\n\r\n" + body)
        wait_until(lambda: metric(port, 'vexa_lane_busy{lane="long"}') == count, 10, f"{count} calls that hang")
        yield
        if metric(port, 'vexa_lane_busy{lane="long"}') != count:
            raise MeasurementError("the calls that should hang have ended")
    finally:
        call(port, "/webapi/VEXA.Bench/release", tokens[0])
        for client in sockets:
            client.close()


def measure_stall(wrk, host, rounds, seconds):
    def p99():
        return wrk.run(host["port"], GET, STALL_CONNECTIONS, seconds, "all", host["tokens"]["admin"])["p99"]

    without, beside = [], []
    for _ in range(rounds):
        without.append(p99())
        with stalled_calls(host["port"], host["tokens"], STALLED_CALLS):
            beside.append(p99())
        wait_until(lambda: metric(host["port"], 'vexa_lane_busy{lane="long"}') == 0, 10, "the end of the hanging calls")
    ratio = statistics.median(beside) / statistics.median(without)
    print(f"\np99 of get at {STALL_CONNECTIONS} connections: {statistics.median(without) / 1000:.2f} ms; "
          f"beside {STALLED_CALLS} calls that hang: {statistics.median(beside) / 1000:.2f} ms; ratio "
          + with_verdict(f"{ratio:.2f}", ratio <= TARGET_STALL_RATIO, f"not more than {TARGET_STALL_RATIO}"))


def measure_start(build, data, log):
    times = []
    for _ in range(STARTS):
        with real_daemon(build, data, log) as (_, _, milliseconds):
            times.append(milliseconds)
    median = statistics.median(times)
    print("vexad from exec to its first answer: "
          + with_verdict(f"{median:.0f} ms", median < TARGET_START_MS, f"below {TARGET_START_MS} ms"))


def idle_connections(port, count):
    """Returns connections that have received an answer and are idle."""
    clients = []
    for _ in range(count):
        client = socket.create_connection(("127.0.0.1", port), 5)
        clients.append(client)
        client.sendall(b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n")
        if not client.recv(4096).startswith(b"HTTP/1.1 200"):
            raise MeasurementError("an idle connection got no answer")
    return clients


def measure_memory(build, data, log, wrk, host, seconds):
    with real_daemon(build, data, log) as (pid, port, _):
        empty = process_status(pid, "VmRSS") / 1024
        wrk.run(port, GET, 64, seconds, "all", host["tokens"]["admin"])
        loaded = process_status(pid, "VmRSS")
        print(f"vexad's resident memory: {empty:.1f} MiB after its start, with 1,000 guests after the load "
              + with_verdict(f"{loaded / 1024:.1f} MiB", loaded / 1024 < TARGET_MEMORY_MIB,
                             f"below {TARGET_MEMORY_MIB} MiB"))
        count = min(IDLE_CONNECTIONS, resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 200)
        if count < IDLE_CONNECTIONS:
            print(f"The limit on open files allows {count} idle connections only.")
        threads = process_status(pid, "Threads")
        loaded = process_status(pid, "VmRSS")
        clients = idle_connections(port, count)
        try:
            if metric(port, "vexa_connections") < count:
                raise MeasurementError("idle connections were closed")
            print(f"{count:,} idle connections: {process_status(pid, 'Threads')} threads (before: {threads}), "
                  f"{(process_status(pid, 'VmRSS') - loaded) / count:.2f} KiB of resident memory each")
        finally:
            for client in clients:
                client.close()


def main():
    parser = argparse.ArgumentParser(description="Measures the daemon over HTTP.")
    parser.add_argument("--quick", action="store_true", help="under a minute, and rougher")
    parser.add_argument("build", type=pathlib.Path, help="the build folder")
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    rounds, seconds, stall_rounds = (1, 1, 3) if arguments.quick else (4, 2, 8)
    for program in ("wrk", "/usr/sbin/nginx"):
        if not shutil.which(program):
            sys.exit(f"http_bench.py: {program} is missing; install wrk and nginx-light")
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    wanted = IDLE_CONNECTIONS + 1000
    soft = wanted if hard == resource.RLIM_INFINITY else min(hard, wanted)
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))  # also for the programs that this one starts
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))

    failures = []

    def attempt(measure, *inputs):
        try:
            measure(*inputs)
        except (MeasurementError, OSError, subprocess.SubprocessError) as problem:
            failures.append(str(problem))
            print(f"NOT MEASURED ({measure.__name__}): {problem}")

    with tempfile.TemporaryDirectory(prefix="vexa-bench.") as name, contextlib.ExitStack() as stack:
        folder = pathlib.Path(name)
        log = stack.enter_context(open(folder / "vexad.log", "w", encoding="utf-8"))
        try:
            with bench_host(build, folder) as host:
                ids = host["guest_ids"]
                wrk = Wrk(folder, {"all": ids, "some": ids[:host["granted_to_some"]]})
                with nginx(folder, host["reply"], host["io_threads"]) as nginx_port:
                    attempt(measure_rates, wrk, host, nginx_port, rounds, seconds)
                attempt(measure_stall, wrk, host, stall_rounds, seconds)
        except (MeasurementError, OSError) as problem:
            sys.exit(f"http_bench.py: {problem}")
        # The folder of the host is still there, with guests, accounts and sessions.
        attempt(measure_start, build, folder / "data", log)
        attempt(measure_memory, build, folder / "data", log, wrk, host, seconds)
    if failures:
        sys.exit(f"http_bench.py: {len(failures)} of the figures could not be measured")


if __name__ == "__main__":
    main()
