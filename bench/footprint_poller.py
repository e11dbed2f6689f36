#!/usr/bin/python3
"""A minimal poller made of pymodbus, doing the reads of kes_energy with its
pauses: one thread per line, each device read once per cycle with up to two
attempts, 100 ms after an answer or a failure, 10 ms between cycles.

Usage: footprint_poller.py SECONDS LINE...
LINE is PORT=UNIT/START/COUNT,UNIT/START/COUNT,... on 127.0.0.1.
Prints "READS <n>" at the end.
"""
import sys
import threading
import time

from pymodbus.client import ModbusTcpClient
from pymodbus.framer.rtu_framer import ModbusRtuFramer

ANSWER_PAUSE = 0.1
FAILURE_PAUSE = 0.1
CYCLE_PAUSE = 0.01
ATTEMPTS = 2


def poll_line(port, devices, deadline, counts, index):
    client = ModbusTcpClient("127.0.0.1", port=port, framer=ModbusRtuFramer,
                             timeout=1, retries=0)
    client.connect()
    reads = 0
    while time.monotonic() < deadline:
        for unit, start, count in devices:
            for _ in range(ATTEMPTS):
                try:
                    reply = client.read_holding_registers(start, count, slave=unit)
                    good = not reply.isError() and len(reply.registers) == count
                except Exception:  # a lost gateway: connect again on the next read
                    good = False
                if good:
                    reads += 1
                    time.sleep(ANSWER_PAUSE)
                    break
                time.sleep(FAILURE_PAUSE)
        time.sleep(CYCLE_PAUSE)
    client.close()
    counts[index] = reads


def main():
    seconds = float(sys.argv[1])
    lines = []
    for spec in sys.argv[2:]:
        port, devices = spec.split("=")
        lines.append((int(port), [tuple(int(x) for x in d.split("/"))
                                  for d in devices.split(",")]))
    deadline = time.monotonic() + seconds
    counts = [0] * len(lines)
    threads = [threading.Thread(target=poll_line, args=(port, devices, deadline, counts, i))
               for i, (port, devices) in enumerate(lines)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    print("READS %d" % sum(counts), flush=True)


if __name__ == "__main__":
    main()
