"""A server that knows its users by signed tokens, and a node's file with its token and key."""

import json
import urllib.request

import pytest

from conftest import LIMIT_S, free_port, wait_until
from nats_accounts import Accounts, Key
from test_faults import EVENT


@pytest.fixture
def accounts(tmp_path):
    return Accounts(tmp_path)


@pytest.fixture
def watched_server(start_server, accounts):
    """The server, and what it says of the connections that it has."""
    port = free_port()
    server = start_server("-m", port, "-c", accounts.server_config())

    def connections():
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/connz?auth=1&subs=1", timeout=LIMIT_S) as answer:
            return json.load(answer)["connections"]
    return server, connections


def test_a_node_is_known_by_its_credentials_and_sends_its_events(serve, start_link, publish, accounts, watched_server, tmp_path):
    server, connections = watched_server
    serve()
    user = Key(tmp_path, "cam1", "user")
    link = start_link(server.port, "--creds", accounts.credentials(user))
    link.says("connected to nats://")
    assert [each["authorized_user"] for each in connections()] == [user.public]
    wait_until(lambda: "vextool.n1.run" in connections()[0].get("subscriptions_list", []), "the node takes requests")
    before = connections()[0]["in_msgs"]

    def arrived():
        publish("report 0 /clip.mp4 1")
        return connections()[0]["in_msgs"] > before + 2
    wait_until(arrived, f"events of {EVENT}")
    assert "the server says" not in link.errors()


def test_credentials_that_another_account_has_given_are_refused_with_the_reason(start_link, accounts, watched_server, tmp_path):
    server, connections = watched_server
    (tmp_path / "other").mkdir()
    stranger = Accounts(tmp_path / "other")
    link = start_link(server.port, "--creds", stranger.credentials(Key(tmp_path / "other", "cam1", "user")))
    link.says("Authorization")
    assert connections() == []


def test_a_file_without_credentials_is_said_and_tried_again(start_link, accounts, watched_server, tmp_path):
    server, connections = watched_server
    file = tmp_path / "late.creds"
    file.write_text("nothing\n", encoding="ascii")
    link = start_link(server.port, "--creds", file)
    link.says("no connection: .*late.creds")
    user = Key(tmp_path, "cam1", "user")
    file.write_text(accounts.credentials(user).read_text(encoding="ascii"), encoding="ascii")
    link.says("connected to nats://")
    assert [each["authorized_user"] for each in connections()] == [user.public]
