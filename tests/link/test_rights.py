"""The example configuration in fleet/nats: what a node, an operator and a viewer may do, and what not."""

import pytest

from conftest import ROOT, wait_until
from test_faults import EVENT


@pytest.fixture(scope="module")
def people(pki):
    for name in ("cam1", "cam2", "operator", "viewer", "stranger"):
        pki.make(name, f"DNS:{name}")
    return pki


@pytest.fixture
def server(start_server, people, tmp_path):
    config = tmp_path / "nats.conf"
    example = (ROOT / "fleet/nats/nats.conf").read_text(encoding="ascii")
    assert example.count("/etc/nats/") == 3
    config.write_text(example.replace("/etc/nats/", f"{people.folder}/"), encoding="ascii")
    return start_server("-c", config)


@pytest.fixture
def as_user(connect, server, people):
    return lambda name: connect(server.port, tls=people.client_context(name))


@pytest.fixture
def node_link(start_link, server, people):
    def start(node, certificate):
        return start_link(f"tls://127.0.0.1:{server.port}", "--ca", people / "ca.pem", "--cert", people / f"{certificate}.pem",
                          "--key", people / f"{certificate}.key", node=node)
    return start


def test_a_node_sends_its_events_and_answers_those_who_may_ask(serve, as_user, node_link, publish):
    serve()
    operator, viewer = as_user("operator"), as_user("viewer")
    link = node_link("cam1", "cam1")
    link.says("connected to tls://")
    viewer.subscribe("vextool.*.up")
    viewer.subscribe("vextool.*.event.>")
    for subject in ("vextool.cam1.run", "vextool.all.run"):
        assert operator.ask(subject, "core show version")["status"] == "ok"

    def seen():
        publish("report 0 /clip.mp4 1")
        return viewer.until(lambda: any(m.subject == EVENT.replace("n1", "cam1") for m in viewer.messages), 0.2)
    wait_until(seen, "an event")
    assert "the server says" not in link.errors()


@pytest.mark.parametrize("subject", ["vextool.cam2.event.layer.a", "vextool.cam2.up", "vextool.cam2.gap", "vextool.cam2.run",
                                     "vextool.all.run", "vextool.cam1.run", "_INBOX.other", "other"])
def test_a_node_cannot_speak_as_another_or_ask_one(as_user, subject):
    operator, node = as_user("operator"), as_user("cam1")
    operator.subscribe("vextool.>")
    operator.subscribe("_INBOX.>")
    node.publish(subject, "{}")
    node.publish("vextool.cam1.event.layer.a", "{}")
    node.flush()
    assert operator.next().subject == "vextool.cam1.event.layer.a"
    assert len(node.errors) == 1
    assert f'Permissions Violation for Publish to "{subject}"' in node.errors[0]


@pytest.mark.parametrize("subject", ["vextool.>", "vextool.cam2.run", "vextool.*.run", "vextool.cam2.event.>", "_INBOX.>", ">"])
def test_a_node_cannot_hear_what_is_for_others(as_user, subject):
    node = as_user("cam1")
    node.subscribe(subject)
    assert "Permissions Violation for Subscription" in node.errors[0]


def test_an_answer_goes_to_the_one_who_asked_and_once(as_user):
    operator, node = as_user("operator"), as_user("cam1")
    node.subscribe("vextool.cam1.run")
    inbox = operator.inbox()
    operator.publish("vextool.cam1.run", "who", inbox)
    request = node.next()
    for answer in ("first", "second"):
        node.publish(request.reply, answer)
    node.flush()
    assert operator.next().payload == b"first"
    assert operator.next(0.2) is None
    assert "Permissions Violation" in node.errors[0]


def test_a_viewer_cannot_ask_and_an_operator_cannot_speak_as_a_node(as_user):
    viewer, operator = as_user("viewer"), as_user("operator")
    viewer.publish("vextool.cam1.run", "core show version", "_INBOX.viewer")
    operator.publish("vextool.cam1.event.layer.a", "{}")
    viewer.flush()
    operator.flush()
    assert "Permissions Violation for Publish" in viewer.errors[0]
    assert "Permissions Violation for Publish" in operator.errors[0]


def test_a_certificate_without_a_user_gets_nothing(as_user):
    with pytest.raises(ConnectionError, match="Authorization Violation"):
        as_user("stranger")


def test_a_link_under_anothers_name_says_so_and_keeps_its_events(serve, node_link, publish):
    serve()
    link = node_link("cam2", "cam1")
    link.says('the server says: .*Permissions Violation for .*"vextool.cam2.(up|run)"')

    def kept():
        publish("report 0 /clip.mp4 1")
        return "allow this user to publish vextool.cam2.>" in link.errors()
    wait_until(kept, "the refused event is said")
    assert link.ends(15) == 0
    assert "did not reach the cluster" in link.errors()
