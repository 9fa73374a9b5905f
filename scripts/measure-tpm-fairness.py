#!/usr/bin/python3
"""Measures how long a light client waits for the TPM while heavy clients keep it busy.

Starts build/<preset>/src/service/kesttcsd -debug in a temporary home (embedded TPM, loopback TCP),
lets HEAVY clients (default 8) loop Tcsip_SelfTestFull (a few milliseconds each) on connections of
their own, and times a light client's Tcsip_GetRandom calls meanwhile. Prints the median, 90th
percentile and longest wait. Talks to the service with Debian's python3-impacket.

Usage: scripts/measure-tpm-fairness.py [PRESET] [HEAVY] [SECONDS]
"""
import os
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

from impacket.dcerpc.v5 import transport
from impacket.uuid import uuidtup_to_bin

TCS = uuidtup_to_bin(('fbcd9c02-72cb-47bb-99dd-aedb551491de', '1.0'))
OPEN_CONTEXT, GET_RANDOM, SELF_TEST_FULL = 3, 56, 65


def free_port():
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]


def client(port):
    dce = transport.DCERPCTransportFactory('ncacn_ip_tcp:127.0.0.1[%d]' % port).get_dce_rpc()
    dce.connect()
    dce.bind(TCS)
    dce.call(OPEN_CONTEXT, b'')
    context = struct.unpack('<L', dce.recv()[:4])[0]
    return dce, context


def call(dce, opnum, stub):
    dce.call(opnum, stub)
    return dce.recv()


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    preset = sys.argv[1] if len(sys.argv) > 1 else 'default'
    heavy = int(sys.argv[2]) if len(sys.argv) > 2 else 8
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 10
    port = free_port()
    with tempfile.TemporaryDirectory() as home:
        with open(os.path.join(home, 'tcs_cfg.ini'), 'w') as cfg:
            cfg.write('[TPM]\nbackend=libtpms\n[RPC]\nsocket=%s/KestTCS\ntcp_port=%d\n' % (home, port))
        daemon = subprocess.Popen([os.path.join(root, 'build', preset, 'src/service/kesttcsd'), '-debug'],
                                  env=dict(os.environ, KESTTCS_HOME=home),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            for _ in range(100):
                if os.path.exists(os.path.join(home, 'KestTCS')):
                    break
                time.sleep(0.1)
            stop = threading.Event()
            def loop():
                dce, context = client(port)
                while not stop.is_set():
                    call(dce, SELF_TEST_FULL, struct.pack('<L', context))
            threads = [threading.Thread(target=loop) for _ in range(heavy)]
            for t in threads:
                t.start()
            time.sleep(1)
            dce, context = client(port)
            waits = []
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                start = time.monotonic()
                call(dce, GET_RANDOM, struct.pack('<LL', context, 16))
                waits.append((time.monotonic() - start) * 1000)
            stop.set()
            for t in threads:
                t.join()
            waits.sort()
            print('%d heavy clients, %d GetRandom calls: median %.1f ms, 90%% %.1f ms, longest %.1f ms'
                  % (heavy, len(waits), statistics.median(waits), waits[int(len(waits) * 0.9)], waits[-1]))
        finally:
            daemon.send_signal(signal.SIGINT)
            daemon.wait(timeout=60)


if __name__ == '__main__':
    main()
