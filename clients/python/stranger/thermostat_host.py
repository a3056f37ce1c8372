"""Uses home.Thermostat: calls it, watches its events, answers its questions."""

import asyncio
import sys

from home.temperature_pb2 import Temperature
from home.thermostat_client import ThermostatClient
from home.thermostat_pb2 import (
    ConfirmHeatCall,
    ConfirmHeatResponse,
    HeatRequest,
    TemperatureChanged,
)

import orvane
from orvane.rpc.browser.browser_id_pb2 import BrowserId


async def confirm(call: ConfirmHeatCall) -> ConfirmHeatResponse:
    wanted = call.target.degrees < 30
    print(f"asked: are {call.target.degrees} degrees wanted? {'yes' if wanted else 'no'}")
    return ConfirmHeatResponse(wanted=wanted)


async def show(changes: orvane.Events[TemperatureChanged]) -> None:
    async for event in changes:
        print(f"event: the kitchen has {event.temperature.degrees} degrees")


async def main(path: str) -> None:
    kitchen = BrowserId(value=7)
    async with orvane.connect(path) as connection:
        thermostat = ThermostatClient(connection)
        changes = thermostat.when_temperature_changed(kitchen)
        showing = asyncio.create_task(show(changes))
        async with thermostat.on_confirm_heat(kitchen, confirm):
            for degrees in (21, 28, 40):
                request = HeatRequest(room=kitchen, target=Temperature(degrees=degrees))
                try:
                    await thermostat.heat(request, timeout=10)
                    print("answer: done")
                except orvane.RpcError as error:
                    print(f"answer: {error.text}")
        changes.close()
        await showing


asyncio.run(main(sys.argv[1]))
