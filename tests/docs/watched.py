#!/usr/bin/env python3
"""Runs the cookbook's service as systemd would, until it has given two signs of life.

  watched.py UNIT COMMAND...
"""
import configparser
import os
import socket
import subprocess
import sys
import tempfile

unit = configparser.ConfigParser()
unit.read(sys.argv[1])
assert unit["Service"]["Type"] == "notify", "The service says when it is ready"
limit = int(float(unit["Service"]["WatchdogSec"]) * 1e6)

with tempfile.TemporaryDirectory() as directory, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
    manager.bind(directory + "/notify")
    manager.settimeout(300)
    service = subprocess.Popen(sys.argv[2:], env={**os.environ, "NOTIFY_SOCKET": directory + "/notify",
                                                  "WATCHDOG_USEC": str(limit // 1000)})
    said = [manager.recv(100) for _ in range(3)]
    service.terminate()
    service.wait()
print(said)
sys.exit(said != [b"READY=1", b"WATCHDOG=1", b"WATCHDOG=1"])
