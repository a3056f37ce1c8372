#!/usr/bin/python3
"""A host in Python, over our client or gRPC's, and the C++ server of that stack.

  python_peer.py FIGURE --server PROGRAM [--server-interface NAME]
      --interface orvane|grpc|grpc-aio --in-flight N --pin same|across
      --duration-ms N --warm-up-ms N

FIGURE is unary or events. Prints one line of JSON, as the programs in C++ do
(../transport/measure.h). `stage` puts it beside the modules that it imports.
"""

import argparse
import asyncio
import json
import os
import subprocess
import sys
import tempfile
import threading
import time
from collections.abc import Callable

from benchmarks.transport.peer_pb2 import Payload
from google.protobuf.empty_pb2 import Empty
from orvane.rpc.browser.browser_id_pb2 import BrowserId
from orvane.rpc.browser.cursor_pb2 import CursorChanged
from orvane.rpc.event_subscription_pb2 import EventSubscription

# As in measure.h.
BURST = 256
BURSTS_IN_FLIGHT = 8

START_LIMIT_S = 30


class Meter:
    """Counts operations once it is warm, until the duration is over."""

    def __init__(self, warm_up_ms: int, duration_ms: int) -> None:
        self._duration_ns = duration_ms * 1_000_000
        self._warm_at = time.perf_counter_ns() + warm_up_ms * 1_000_000
        self._begun = 0  # Once it is warm.
        self._operations = 0
        self._times: list[int] = []
        self.is_done = False

    def ended(self, operations: int, begun: int | None = None) -> bool:
        """Call it when operations have ended. False once the measurement is over."""
        now = time.perf_counter_ns()
        if not self._begun:
            if now >= self._warm_at:
                self._begun = now
                self._cpu = time.process_time_ns()
            return True
        if self.is_done:
            return False
        self._operations += operations
        if begun is not None:
            self._times.append(now - begun)
        self.is_done = now >= self._begun + self._duration_ns
        if self.is_done:
            self._ended = now
            self._cpu = time.process_time_ns() - self._cpu
        return not self.is_done

    def results(self) -> dict[str, float]:
        if not self.is_done:
            sys.exit("the connection broke")
        results = {
            "operations": self._operations,
            "per_s": self._operations * 1e9 / (self._ended - self._begun),
            "host_cpu_us": self._cpu / self._operations / 1e3,
        }
        if self._times:
            self._times.sort()
            for name, percent in ("p50_us", 50), ("p99_us", 99):
                at = (len(self._times) - 1) * percent // 100
                results[name] = self._times[at] / 1e3
        return results


async def run_orvane(options: argparse.Namespace, path: str, meter: Meter) -> None:
    import orvane
    from benchmarks.transport.peer_client import PeerRpcClient

    async with orvane.connect(path) as connection:
        peer = PeerRpcClient(connection)
        if options.figure == "unary":
            await call_in_flight(options, meter, peer.echo)
            return
        asked: set[asyncio.Task[Empty]] = set()

        def ask() -> None:
            task = asyncio.create_task(peer.ask_burst(Empty()))
            asked.add(task)
            task.add_done_callback(asked.discard)

        events = peer.when_cursor_changed(BrowserId(value=1))
        await peer.echo(Payload())  # The subscription has been seen.
        for _ in range(BURSTS_IN_FLIGHT):
            ask()
        count = 0
        async for _ in events:
            count += 1
            if count % BURST == 0:
                if not meter.ended(BURST):
                    break
                ask()
        await asyncio.gather(*asked)


async def call_in_flight(
    options: argparse.Namespace, meter: Meter, echo: Callable
) -> None:
    payload = Payload()

    async def call() -> None:
        while True:
            begun = time.perf_counter_ns()
            await echo(payload)
            if not meter.ended(1, begun):
                return

    await asyncio.gather(*(call() for _ in range(options.in_flight)))


# Without a message size limit or a proxy, as in the gRPC peer in C++.
ECHO = "/benchmarks.PeerRpc/Echo", Payload.SerializeToString, Payload.FromString
WATCH = (
    "/benchmarks.PeerRpc/WhenCursorChanged",
    EventSubscription.SerializeToString,
    CursorChanged.FromString,
)


async def run_grpc_aio(options: argparse.Namespace, path: str, meter: Meter) -> None:
    import grpc.aio

    async with grpc.aio.insecure_channel(f"unix:{path}") as channel:
        if options.figure == "unary":
            await call_in_flight(options, meter, channel.unary_unary(*ECHO))
            return
        call = channel.stream_stream(*WATCH)()
        for _ in range(BURSTS_IN_FLIGHT):
            await call.write(EventSubscription())
        count = 0
        while await call.read():
            count += 1
            if count % BURST == 0:
                if not meter.ended(BURST):
                    break
                await call.write(EventSubscription())
        call.cancel()


def run_grpc(options: argparse.Namespace, path: str, meter: Meter) -> None:
    """Blocks, with a thread for each call in flight."""
    import grpc

    with grpc.insecure_channel(f"unix:{path}") as channel:
        if options.figure == "unary":
            echo = channel.unary_unary(*ECHO)
            payload = Payload()

            def call() -> None:
                while True:
                    begun = time.perf_counter_ns()
                    echo(payload)
                    if not meter.ended(1, begun):
                        return

            threads = [threading.Thread(target=call) for _ in range(options.in_flight)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            return
        asks = threading.Semaphore(BURSTS_IN_FLIGHT)

        def asked():
            while True:
                asks.acquire()
                if meter.is_done:
                    return
                yield EventSubscription()

        call = channel.stream_stream(*WATCH)(asked())
        for count, _ in enumerate(call, 1):
            if count % BURST == 0:
                if not meter.ended(BURST):
                    break
                asks.release()
        asks.release()
        call.cancel()


INTERFACES = {
    "orvane": lambda *arguments: asyncio.run(run_orvane(*arguments)),
    "grpc-aio": lambda *arguments: asyncio.run(run_grpc_aio(*arguments)),
    "grpc": run_grpc,
}


def main() -> None:
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("figure", choices=("unary", "events"))
    parser.add_argument("--server", required=True)
    parser.add_argument("--server-interface", default="")
    parser.add_argument("--interface", choices=INTERFACES, required=True)
    parser.add_argument("--in-flight", type=int, default=1)
    parser.add_argument("--pin", choices=("same", "across"), default="same")
    parser.add_argument("--duration-ms", type=int, default=300)
    # Before anything is measured, so that caches are warm.
    parser.add_argument("--warm-up-ms", type=int, default=1000)
    options = parser.parse_args()

    cores = sorted(os.sched_getaffinity(0))
    server_core = cores[0] if options.pin == "same" else cores[1]
    with tempfile.TemporaryDirectory(prefix="orvane-benchmark-") as folder:
        path = os.path.join(folder, "socket")
        command = [options.server, options.figure, "--socket", path, "--core", str(server_core)]
        if options.server_interface:
            command += ["--interface", options.server_interface]
        server = subprocess.Popen(command)
        try:
            os.sched_setaffinity(0, {cores[0]})
            until = time.monotonic() + START_LIMIT_S
            while not os.path.exists(path):
                if server.poll() is not None or time.monotonic() > until:
                    sys.exit("the server does not listen")
                time.sleep(0.01)
            meter = Meter(options.warm_up_ms, options.duration_ms)
            INTERFACES[options.interface](options, path, meter)
        finally:
            server.kill()
            server.wait()
    print(json.dumps(meter.results()))


main()
