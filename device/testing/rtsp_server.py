"""An RTSP server on a free port of the loopback interface: serves /live, red pictures and a tone. Writes its port on
standard output and ends with standard input."""

import sys
import threading

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402, the versions come first

LAUNCH = """( videotestsrc is-live=true pattern=solid-color foreground-color=0xffff0000
  ! video/x-raw,format=I420,width=320,height=240,framerate=25/1
  ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=12 ! rtph264pay name=pay0 pt=96
  audiotestsrc is-live=true ! audioconvert ! avenc_aac ! rtpmp4apay name=pay1 pt=97 )"""

Gst.init(None)
server = GstRtspServer.RTSPServer()
server.set_address("127.0.0.1")
server.set_service("0")
factory = GstRtspServer.RTSPMediaFactory()
factory.set_launch(LAUNCH)
factory.set_shared(True)
server.get_mount_points().add_factory("/live", factory)
server.attach(None)
loop = GLib.MainLoop()
threading.Thread(target=loop.run, daemon=True).start()
print(server.get_bound_port(), flush=True)
sys.stdin.read()
