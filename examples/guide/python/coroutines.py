import asyncio
import sys

import tolk

methods = tolk.Methods()


@methods.method
async def slow(number: int) -> int:
    await asyncio.sleep(0.1)
    return number * number


async def main() -> None:
    where = sys.argv[1] if len(sys.argv) > 1 else "pipe:5000"
    async with tolk.listen(where, methods), await tolk.connect_async(where) as client:
        print(await asyncio.gather(*(client.call_async("slow", i) for i in range(5))))
        try:
            await asyncio.wait_for(client.call_async("slow", 5), 0.01)
        except asyncio.TimeoutError:
            print("cancelled")


asyncio.run(main())
