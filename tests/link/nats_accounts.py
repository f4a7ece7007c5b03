"""Accounts of a NATS server that knows its users by signed tokens: an operator, who vouches for an account, which vouches for
users. What `nsc` does, with openssl."""

import base64
import binascii
import json
import time

from conftest import openssl

PREFIXES = {"operator": 14 << 3, "account": 0, "user": 20 << 3}
SEED = 18 << 3
WITHOUT_LIMITS = {"subs": -1, "data": -1, "payload": -1}


def readable(data):
    return base64.b32encode(data + binascii.crc_hqx(data, 0).to_bytes(2, "little")).decode().rstrip("=")


def url_safe(data):
    return base64.urlsafe_b64encode(data).decode().rstrip("=")


class Key:
    """One of an operator, an account or a user."""

    def __init__(self, folder, name, kind):
        self.name, self.kind, self.file = name, kind, folder / f"{name}.nkey"
        openssl("genpkey", "-algorithm", "ed25519", "-out", self.file)
        prefix = PREFIXES[kind]
        self.public = readable(bytes([prefix]) + openssl("pkey", "-in", self.file, "-pubout", "-outform", "DER")[-32:])
        private = openssl("pkey", "-in", self.file, "-outform", "DER")[-32:]
        self.seed = readable(bytes([SEED | prefix >> 5, (prefix & 31) << 3]) + private)

    def sign(self, text):
        part = self.file.with_suffix(".part")
        part.write_text(text, encoding="ascii")
        return openssl("pkeyutl", "-sign", "-inkey", self.file, "-rawin", "-in", part)

    def token(self, subject, **claims):
        """What this one says of another."""
        body = {"iat": int(time.time()), "iss": self.public, "jti": subject.name, "name": subject.name, "sub": subject.public,
                "nats": {"type": subject.kind, "version": 2, **claims}}
        text = ".".join(url_safe(json.dumps(part).encode()) for part in ({"typ": "JWT", "alg": "ed25519-nkey"}, body))
        return f"{text}.{url_safe(self.sign(text))}"


class Accounts:
    def __init__(self, folder):
        self.folder = folder
        self.operator, self.account = Key(folder, "operator", "operator"), Key(folder, "account", "account")

    def server_config(self):
        limits = {**WITHOUT_LIMITS, "imports": -1, "exports": -1, "conn": -1, "leaf": -1, "wildcards": True}
        file = self.folder / "accounts.conf"
        file.write_text(f"operator: {self.operator.token(self.operator)}\nresolver: MEMORY\nresolver_preload: "
                        f"{{ {self.account.public}: {self.operator.token(self.account, limits=limits)} }}\n", encoding="ascii")
        return file

    def credentials(self, user):
        """The file of a user, a Key that this account vouches for."""
        file = self.folder / f"{user.name}.creds"
        file.write_text(f"-----BEGIN NATS USER JWT-----\n{self.account.token(user, pub={}, sub={}, **WITHOUT_LIMITS)}\n"
                        f"------END NATS USER JWT------\n\n-----BEGIN USER NKEY SEED-----\n{user.seed}\n"
                        "------END USER NKEY SEED------\n", encoding="ascii")
        file.chmod(0o600)
        return file
