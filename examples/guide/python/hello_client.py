import sys

import tolk

client = tolk.connect(sys.argv[1] if len(sys.argv) > 1 else "pipe:5000")
print("2 + 3 =", client.call("add", 2, 3, timeout=10))
