#!/usr/bin/env python3
"""The far end of the recipes that push: it decodes what comes and writes a hash a picture.

  record PORT       a server that takes RTSP RECORD at /live
  whip PORT         an endpoint that takes WHIP at /whip/live
  janus URL         a viewer of stream 1 of the Janus at URL

WebRTC is answered, by GStreamer's webrtcbin, never offered: in both ways the sender of the picture
offers. Part of scripts/check-video-out.
"""
import http.server
import json
import signal
import sys
import threading
import urllib.request

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstSdp", "1.0")
gi.require_version("GstWebRTC", "1.0")
from gi.repository import GLib, Gst, GstSdp, GstWebRTC  # noqa: E402

DECODED = ("rtph264depay name={name} ! avdec_h264 ! videoconvert ! video/x-raw,format=I420"
           " ! checksumsink hash=md5 sync=false")
ANSWER_WITHIN_S = 10


def record(port):
    gi.require_version("GstRtspServer", "1.0")
    from gi.repository import GstRtspServer
    server = GstRtspServer.RTSPServer(service=port)
    media = GstRtspServer.RTSPMediaFactory(launch=f"( {DECODED.format(name='depay0')} )")
    media.set_transport_mode(GstRtspServer.RTSPTransportMode.RECORD)
    server.get_mount_points().add_factory("/live", media)
    server.attach(None)
    print("ready", flush=True)
    return server


class Viewer:
    """Answers one offer, its candidates included, and decodes what then comes."""

    def __init__(self):
        self.gathered = threading.Event()
        self.pipeline = Gst.Pipeline()
        self.peer = Gst.ElementFactory.make("webrtcbin")
        self.peer.set_property("bundle-policy", GstWebRTC.WebRTCBundlePolicy.MAX_BUNDLE)
        self.peer.connect("pad-added", self.on_pad)
        self.peer.connect("notify::ice-gathering-state", self.on_gathering)
        self.peer.connect("notify::connection-state", lambda peer, _: print(
            "connection", peer.get_property("connection-state").value_nick, flush=True))
        self.pipeline.add(self.peer)
        self.pipeline.set_state(Gst.State.PLAYING)

    def on_pad(self, _, pad):
        if pad.direction != Gst.PadDirection.SRC:
            return
        branch = Gst.parse_bin_from_description(DECODED.format(name="depay"), True)
        self.pipeline.add(branch)
        branch.sync_state_with_parent()
        pad.link(branch.get_static_pad("sink"))

    def on_gathering(self, peer, _):
        if peer.get_property("ice-gathering-state") == GstWebRTC.WebRTCICEGatheringState.COMPLETE:
            self.gathered.set()

    def ask(self, signal_name, *arguments):
        promise = Gst.Promise.new()
        self.peer.emit(signal_name, *arguments, promise)
        if promise.wait() != Gst.PromiseResult.REPLIED:
            sys.exit(f"{signal_name} was not answered")
        return promise.get_reply()

    def answer(self, offer):
        _, message = GstSdp.SDPMessage.new_from_text(offer)
        remote = GstWebRTC.WebRTCSessionDescription.new(GstWebRTC.WebRTCSDPType.OFFER, message)
        self.ask("set-remote-description", remote)
        reply = self.ask("create-answer", None)  # kept: the answer is a part of it
        self.ask("set-local-description", reply.get_value("answer"))
        if not self.gathered.wait(ANSWER_WITHIN_S):
            sys.exit("no ICE candidates: has this host an address and a default route?")
        return self.peer.get_property("local-description").sdp.as_text()


def post(url, **body):
    body["transaction"] = "video-out"
    request = urllib.request.Request(url, json.dumps(body).encode(), {"Content-Type": "application/json"})
    return json.load(urllib.request.urlopen(request, timeout=ANSWER_WITHIN_S))


def event(session):
    """What Janus has to say next, but for its keep-alives."""
    while True:
        told = json.load(urllib.request.urlopen(session, timeout=60))
        if told["janus"] != "keepalive":
            print("janus", told["janus"], told.get("plugindata", ""), flush=True)
            return told


def janus(url):
    viewer = Viewer()
    session = f"{url}/{post(url, janus='create')['data']['id']}"
    handle = f"{session}/{post(session, janus='attach', plugin='janus.plugin.streaming')['data']['id']}"
    post(handle, janus="message", body={"request": "watch", "id": 1})
    offer = next(told["jsep"] for told in iter(lambda: event(session), None) if "jsep" in told)
    answer = {"type": "answer", "sdp": viewer.answer(offer["sdp"])}
    post(handle, janus="message", body={"request": "start"}, jsep=answer)
    threading.Thread(target=lambda: [None for _ in iter(lambda: event(session), None)], daemon=True).start()
    return viewer


def whip(port):
    viewer = Viewer()

    class Endpoint(http.server.BaseHTTPRequestHandler):
        def reply(self, code, body="", **headers):
            self.send_response(code)
            for name, value in {"Content-Length": len(body), **headers}.items():
                self.send_header(name, value)
            self.end_headers()
            self.wfile.write(body.encode())

        def do_POST(self):
            offer = self.rfile.read(int(self.headers["Content-Length"])).decode()
            self.reply(201, viewer.answer(offer), **{"Content-Type": "application/sdp", "Location": "/whip/1"})

        def do_PATCH(self):  # further candidates: those of the offer do
            self.rfile.read(int(self.headers.get("Content-Length", 0)))
            self.reply(204)

        def do_DELETE(self):
            self.reply(200)

        def do_OPTIONS(self):
            self.reply(204)

    server = http.server.ThreadingHTTPServer(("", int(port)), Endpoint)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    print("ready", flush=True)
    return viewer


Gst.init(None)
loop = GLib.MainLoop()
for number in (signal.SIGINT, signal.SIGTERM):
    GLib.unix_signal_add(GLib.PRIORITY_HIGH, number, loop.quit)
kept = {"record": record, "whip": whip, "janus": janus}[sys.argv[1]](sys.argv[2])
loop.run()
