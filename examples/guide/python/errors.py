import sys

import tolk

methods = tolk.Methods()


@methods.method
def store(name: str) -> None:
    if name == "":
        raise ValueError("no name")
    raise tolk.Failed("the disk is full", code=28, details={"free": 0})


where = sys.argv[1] if len(sys.argv) > 1 else "pipe:5000"
with tolk.listen(where, methods) as server, tolk.connect(where) as client:
    try:
        client.call("store", "x")
    except tolk.Failed as error:
        print(error.reason, error.code, error.details)
    for method, *args in [("store", ""), ("store", 5), ("stare", "x")]:
        try:
            client.call(method, *args)
        except tolk.Error as error:
            print(error)
    server.close()
    try:
        client.call("store", "x")
    except ConnectionError as error:
        print(error)
