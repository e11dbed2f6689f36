#!/usr/bin/python3
"""Modbus RTU-over-TCP gateway made of pymodbus, as an independent peer.

Usage: pymodbus_gateway.py REGISTERS_JSON
REGISTERS_JSON maps a unit to {first register: [values...]}, for example
{"1": {"300": [24000, 250]}}. Units 1 to 11 each get a slave context, since
pymodbus stays silent for a unit it does not know. Listens on a free port of
127.0.0.1 and prints "PORT <n>" once it serves.
"""
import asyncio
import json
import sys

from pymodbus.datastore import (ModbusSequentialDataBlock, ModbusServerContext,
                                ModbusSlaveContext)
from pymodbus.framer.rtu_framer import ModbusRtuFramer
from pymodbus.server.async_io import ModbusTcpServer

BLOCK_SIZE = 4096


def build_context(registers):
    slaves = {}
    for unit in range(1, 12):
        values = [0] * BLOCK_SIZE
        for first, block in registers.get(str(unit), {}).items():
            start = int(first)
            values[start:start + len(block)] = block
        # zero_mode: without it the RTU framer over TCP reads one register off
        slaves[unit] = ModbusSlaveContext(
            hr=ModbusSequentialDataBlock(0, values), zero_mode=True)
    return ModbusServerContext(slaves=slaves, single=False)


async def main():
    registers = json.loads(sys.argv[1]) if len(sys.argv) > 1 else {}
    server = ModbusTcpServer(build_context(registers), framer=ModbusRtuFramer,
                             address=("127.0.0.1", 0), allow_reuse_address=True)
    task = asyncio.ensure_future(server.serve_forever())
    await server.serving
    port = server.server.sockets[0].getsockname()[1]
    print("PORT %d" % port, flush=True)
    await task


if __name__ == "__main__":
    asyncio.run(main())
