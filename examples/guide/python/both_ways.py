import queue
import sys
from typing import List

import tolk

editor = tolk.Methods()


@editor.method
def save(text: str, caller: tolk.Caller) -> str:
    spell = caller.peer.call("spell", text, timeout=caller.time_left, result=str)
    server.post("saved", len(text))  # all plugins
    return spell


plugin = tolk.Methods()
sizes: "queue.SimpleQueue[int]" = queue.SimpleQueue()


@plugin.method
def spell(text: str) -> str:
    return text.replace("teh", "the")


@plugin.method(ordered=True)
def saved(size: int) -> None:
    sizes.put(size)


where = sys.argv[1] if len(sys.argv) > 1 else "pipe:5000"
server = tolk.listen(where, editor)
with tolk.connect(where, plugin) as client:
    print(client.call("save", "teh end"))
    print("saved", sizes.get())
server.close()
