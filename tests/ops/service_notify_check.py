#!/usr/bin/env python3
"""Runs a server command as systemd would run a Type=notify service: with NOTIFY_SOCKET set,
waits for READY=1, checks that the listener answers, stops it with SIGTERM and expects
STOPPING=1 and exit code 0. Usage: service_notify_check.py PORT COMMAND..."""
import os
import signal
import socket
import subprocess
import sys
import tempfile
import urllib.request

port, command = sys.argv[1], sys.argv[2:]
folder = tempfile.mkdtemp()
path = os.path.join(folder, "notify")
notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
notify.bind(path)
notify.settimeout(60)
server = subprocess.Popen(command, env=dict(os.environ, NOTIFY_SOCKET=path),
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


def wait_for(state):
    while True:
        message = notify.recv(4096).decode()
        if state in message.split("\n"):
            return


try:
    wait_for("READY=1")
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/getStatus", timeout=10) as reply:
        assert reply.read() == b"Centralized Server Alive"
    server.send_signal(signal.SIGTERM)
    wait_for("STOPPING=1")
    code = server.wait(timeout=60)
    assert code == 0, f"exit code {code}"
finally:
    if server.poll() is None:
        server.kill()
print("ready, answered, stopped cleanly")
