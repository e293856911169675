#!/usr/bin/env python3
"""Reliability probes against a real server on loopback: `make stress` runs
./scripts/stress.py build/release. Every probe is bounded in count and time; the script
prints a table of probe, figure and verdict and exits non-zero when a verdict is FAIL.
Idle and slow clients connect from several 127.x addresses, as separate clients would."""
import http.client
import os
import resource
import socket
import sqlite3
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/release")
WORK = tempfile.mkdtemp(prefix="vistrel-stress-")
DATABASE = os.path.join(WORK, "index.db")
CAPTURES = os.path.join(WORK, "home", "Documents", "Vistrel", "captures")
UPLOADS = os.path.join(WORK, "home", "Documents", "Vistrel", "analyzed_captures")
RESULTS = []


def free_port():
    for port in range(23000 + os.getpid() % 5000, 49000):
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue
    raise RuntimeError("no free port")


PORT = free_port()


class Server:
    def __init__(self):
        self.process = None

    def start(self):
        env = dict(os.environ, HOME=os.path.join(WORK, "home"), TMPDIR=os.path.join(WORK, "tmp"),
                   QUELLWICK_ROOT=os.path.join(BUILD, "quellwick"))
        os.makedirs(env["TMPDIR"], exist_ok=True)
        # stdin stays an open pipe: debug mode ends at the first key press.
        self.process = subprocess.Popen(
            [os.path.join(BUILD, "centralizedserver"), "--mode", "debug", "--host", "127.0.0.1",
             "--port", str(PORT), "--database", DATABASE, "--loglevel", "warning"],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
        for _ in range(200):
            if get("/getStatus")[0] == 200:
                return
            time.sleep(0.05)
        raise RuntimeError("the server did not start")

    def peak_rss_kib(self):
        with open(f"/proc/{self.process.pid}/status") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return 0

    def stop(self, signal_number=15):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal_number)
            try:
                self.process.wait(timeout=20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def get(path, connection=None, timeout=10):
    own = connection is None
    connection = connection or http.client.HTTPConnection("127.0.0.1", PORT, timeout=timeout)
    try:
        connection.request("GET", path)
        response = connection.getresponse()
        return response.status, response.read()
    except (OSError, http.client.HTTPException):
        return 0, b""
    finally:
        if own:
            connection.close()


def record(probe, figure, ok):
    RESULTS.append((probe, figure, "ok" if ok else "FAIL"))
    print(f"  {probe}: {figure} -> {'ok' if ok else 'FAIL'}", flush=True)


def add_file_path(path, start, end, source="stress", packets=1):
    return ("/addFile?" + urllib.parse.urlencode(
        {"file_path": path, "start_ts": start, "end_ts": end, "n_packets": packets,
         "source": source, "es_index": "vistrel-stress"}))


def rows():
    with sqlite3.connect(DATABASE) as db:
        return db.execute("SELECT count(*) FROM TidewellCapture").fetchone()[0]


def probe_parallel_registrations(server):
    before = rows()
    acknowledged = [0] * 8

    def writer(index):
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=30)
        for n in range(500):
            status, _ = get(add_file_path(f"/stress/{index}/{n}.pcapng", 1000 + n, 2000 + n),
                            connection)
            if status == 200:
                acknowledged[index] += 1
            else:
                connection.close()
                connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=30)
        connection.close()

    threads = [threading.Thread(target=writer, args=(i,)) for i in range(8)]
    started = time.monotonic()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    stored = rows() - before
    record("8 x 500 concurrent /addFile",
           f"{sum(acknowledged)} acknowledged, {stored} stored, "
           f"{time.monotonic() - started:.1f} s", stored == sum(acknowledged) == 4000)


def poller(stop, latencies):
    while not stop.is_set():
        started = time.monotonic()
        status, _ = get("/getStatus", timeout=5)
        latencies.append(time.monotonic() - started if status == 200 else 99.0)
        time.sleep(0.25)


def hold_clients(count, seconds, trickle):
    """Opens `count` connections from 40 addresses; with `trickle`, each sends one header byte
    every 10 s. Returns the /getStatus poll latencies seen meanwhile."""
    sockets = []
    for n in range(count):
        client = socket.socket()
        client.setblocking(True)
        client.bind((f"127.0.{3 if trickle else 2}.{n % 40 + 1}", 0))
        try:
            client.connect(("127.0.0.1", PORT))
        except OSError:
            client.close()
            continue
        sockets.append(client)
    stop = threading.Event()
    latencies = []
    thread = threading.Thread(target=poller, args=(stop, latencies))
    thread.start()
    request = b"GET /getStatus HTTP/1.1\r\nHost: x\r\n"
    deadline = time.monotonic() + seconds
    sent = 0
    while time.monotonic() < deadline:
        if trickle and sent < len(request):
            for client in sockets:
                try:
                    client.send(request[sent:sent + 1])
                except OSError:
                    pass
            sent += 1
        time.sleep(min(10, max(0, deadline - time.monotonic())))
    stop.set()
    thread.join()
    for client in sockets:
        client.close()
    return len(sockets), latencies


def probe_idle_connections(server):
    held, latencies = hold_clients(2000, 60, False)
    slow = sum(1 for latency in latencies if latency > 1.0)
    record("2,000 idle connections for 60 s",
           f"{held} connected, {len(latencies)} polls, slowest {max(latencies):.3f} s",
           latencies and slow == 0)


def probe_slow_headers(server):
    held, latencies = hold_clients(2000, 30, True)
    slow = sum(1 for latency in latencies if latency > 1.0)
    record("2,000 slow-header clients for 30 s",
           f"{held} connected, {len(latencies)} polls, slowest {max(latencies):.3f} s",
           latencies and slow == 0)


def large_body(chunked, answers):
    client = socket.create_connection(("127.0.0.1", PORT), timeout=30)
    gib = 1 << 30
    try:
        if chunked:
            client.sendall(b"POST /search HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n")
            piece = b"%x\r\n" % (1 << 20) + b"x" * (1 << 20) + b"\r\n"
            for _ in range(gib >> 20):
                client.sendall(piece)
            client.sendall(b"0\r\n\r\n")
        else:
            client.sendall(b"POST /search HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % gib)
        answers.append(client.recv(4096).split(b"\r\n", 1)[0].decode(errors="replace"))
    except OSError as error:
        answers.append(str(error))
    finally:
        client.close()


def probe_large_bodies(server):
    answers = []
    peak = [server.peak_rss_kib()]
    threads = [threading.Thread(target=large_body, args=(n % 2 == 1, answers)) for n in range(4)]
    for thread in threads:
        thread.start()
    while any(thread.is_alive() for thread in threads):
        peak[0] = max(peak[0], server.peak_rss_kib())
        time.sleep(0.02)
    refused = sum(1 for answer in answers if " 413 " in answer + " ")
    record("4 concurrent 1 GiB JSON bodies (2 announced, 2 chunked)",
           f"{refused} x 413, peak RSS {peak[0] / 1024:.1f} MiB",
           refused == 4 and peak[0] < 64 * 1024)


def multipart(name, with_json):
    boundary = "stressboundary"
    body = ""
    if with_json:
        body += f"--{boundary}\r\nContent-Disposition: form-data; name=\"json\"\r\n\r\n{{}}\r\n"
    body += (f"--{boundary}\r\nContent-Disposition: form-data; name=\"file\"; "
             f"filename=\"{name}\"\r\n\r\n")
    return boundary, body


def probe_stalled_uploads(server):
    stalled = []
    for name in ("stall-1.pcap", "stall-2.pcap"):
        boundary, body = multipart(name, False)
        client = socket.create_connection(("127.0.0.1", PORT), timeout=60)
        client.sendall((f"POST /analyzeCapture HTTP/1.1\r\nHost: x\r\nContent-Type: "
                        f"multipart/form-data; boundary={boundary}\r\nContent-Length: 1000000"
                        f"\r\n\r\n{body}" + "p" * 4000).encode())
        stalled.append(client)
    time.sleep(0.5)

    def third():
        boundary, body = multipart("third.pcap", False)
        body += "pcap\r\n--" + boundary + "--\r\n"
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=30)
        try:
            connection.request("POST", "/analyzeCapture", body,
                               {"Content-Type": f"multipart/form-data; boundary={boundary}"})
            return connection.getresponse().status
        except (OSError, http.client.HTTPException):
            return 0
        finally:
            connection.close()

    started = time.monotonic()
    first_answer = third()
    accepted_after = None
    while time.monotonic() - started < 60:
        if third() != 503:
            accepted_after = time.monotonic() - started
            break
        time.sleep(1)
    for client in stalled:
        client.close()
    leftovers = [name for name in ("stall-1.pcap", "stall-2.pcap")
                 if os.path.exists(os.path.join(UPLOADS, name))]
    record("2 stalled uploads, a third arrives",
           f"first answer {first_answer}, accepted after "
           f"{'never' if accepted_after is None else f'{accepted_after:.1f} s'}, "
           f"{len(leftovers)} partial files left",
           first_answer == 503 and accepted_after is not None and not leftovers)


def write_pcap(path, first_ns, packets):
    frame = (b"\xff" * 6 + b"\x02" * 6 + b"\x08\x00" + bytes.fromhex(
        "4500001c000000004011" + "0000" + "0a000001" + "0a000002") + struct.pack(">HHHH", 30000, 53,
                                                                               8, 0))
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 65535, 1))
        for n in range(packets):
            stamp = first_ns + n * 1_000_000
            out.write(struct.pack("<IIII", stamp // 10**9, stamp % 10**9, len(frame), len(frame)))
            out.write(frame)
    return first_ns, first_ns + (packets - 1) * 1_000_000


def probe_parallel_downloads(server):
    os.makedirs(CAPTURES, exist_ok=True)
    base = 1_700_000_000 * 10**9
    for n in range(4):
        path = os.path.join(CAPTURES, f"d{n}.pcap")
        first, last = write_pcap(path, base + n * 60 * 10**9, 20000)
        get(add_file_path(path, first, last, "dl", 20000))
    span = f"from={base // 10**6}&to={(base + 4 * 60 * 10**9) // 10**6}&var-esinterface=dl"
    filtered = span + "&var-Filters=" + urllib.parse.quote("L4_DST_PORT|=|53")
    references = {path: get("/getCapture?" + path, timeout=120) for path in (span, filtered)}
    results = []

    def download(path):
        results.append(get("/getCapture?" + path, timeout=120) == references[path])

    threads = [threading.Thread(target=download, args=(span if n % 2 else filtered,))
               for n in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    sizes = ", ".join(f"{len(body) / 1e6:.1f} MB" for _, body in references.values())
    complete = all(status == 200 and len(body) > 20000 * 42 for status, body in
                   references.values())
    record("8 parallel filtered and unfiltered downloads",
           f"{sum(results)}/8 identical ({sizes})", complete and all(results) and len(results) == 8)


def probe_kill_during_writes(server):
    before = rows()
    acknowledged = [0]
    stop = threading.Event()

    def writer(index):
        n = 0
        while not stop.is_set():
            if get(add_file_path(f"/kill/{index}/{n}.pcapng", 5000 + n, 6000 + n),
                   timeout=5)[0] == 200:
                acknowledged[0] += 1
            n += 1

    threads = [threading.Thread(target=writer, args=(i,)) for i in range(4)]
    for thread in threads:
        thread.start()
    time.sleep(3)
    server.stop(9)
    stop.set()
    for thread in threads:
        thread.join()
    server.start()
    stored = rows() - before
    with sqlite3.connect(DATABASE) as db:
        integrity = db.execute("PRAGMA integrity_check").fetchone()[0]
    record("kill -9 during writes, then restart",
           f"{acknowledged[0]} acknowledged, {stored} stored, integrity {integrity}",
           stored >= acknowledged[0] and integrity == "ok")


def main():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    server = Server()
    server.start()
    print(f"stress: server on 127.0.0.1:{PORT}, work folder {WORK}", flush=True)
    try:
        for probe in (probe_parallel_registrations, probe_idle_connections, probe_slow_headers,
                      probe_large_bodies, probe_stalled_uploads, probe_parallel_downloads,
                      probe_kill_during_writes):
            try:
                probe(server)
            except Exception as error:  # a broken probe is a failed verdict, not a stop
                record(probe.__name__, f"error: {error}", False)
    finally:
        server.stop()
        subprocess.run(["rm", "-rf", WORK])
    print("\n| Probe | Figure | Verdict |\n|---|---|---|")
    for probe, figure, verdict in RESULTS:
        print(f"| {probe} | {figure} | {verdict} |")
    return 0 if all(verdict == "ok" for _, _, verdict in RESULTS) else 1


if __name__ == "__main__":
    sys.exit(main())
