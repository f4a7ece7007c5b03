"""nats_subscriber.py PORT SUBJECT: a subscriber in plain Python that prints each payload as a line, until it is killed."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "fleet" / "nats"))

from nats_client import Client  # noqa: E402

client = Client(int(sys.argv[1]), limit_s=3600)
client.subscribe(sys.argv[2])
out = sys.stdout.buffer
out.write(b"subscribed\n")
out.flush()
while client.until(lambda: client.messages):
    out.write(b"".join(message.payload + b"\n" for message in client.messages))
    out.flush()
    client.messages.clear()
