"""A pppoe-plus-switch serving NETCONF, started as a user starts it, and the
ways a test reaches it: ncclient sessions with a key made for the run, and
pppoe-plus-cli on its datastore and control sockets.

The build and source folders come from PPLUS_BUILD_DIR and PPLUS_SOURCE_DIR.
"""
import os
import re
import shutil
import subprocess
import tempfile
import time

import paramiko
from ncclient import manager

BUILD_DIR = os.environ.get("PPLUS_BUILD_DIR", "build/default")
SOURCE_DIR = os.environ.get("PPLUS_SOURCE_DIR", ".")
EXAMPLES = os.path.join(SOURCE_DIR, "examples")

NC_BASE = "urn:ietf:params:xml:ns:netconf:base:1.0"
PLUS_NS = "urn:quendal:yang:quendal-pppoe-plus"
IFM_NS = "urn:quendal:yang:quendal-ifm"


def plus(body):
    return '<pppoe-plus xmlns="%s">%s</pppoe-plus>' % (PLUS_NS, body)


def port(name, body):
    return ('<ifm xmlns="%s"><interfaces><interface><name>%s</name>'
            '<pppoe-plus-port xmlns="%s">%s</pppoe-plus-port></interface></interfaces></ifm>' % (IFM_NS, name,
                                                                                                   PLUS_NS, body))


def config(*parts):
    """The <config> of an edit-config; nc:operation attributes may be used inside."""
    return '<config xmlns="%s" xmlns:nc="%s">%s</config>' % (NC_BASE, NC_BASE, "".join(parts))


class Switch:
    """One pppoe-plus-switch with NETCONF on a free port of 127.0.0.1."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="nc-")
        key = paramiko.ECDSAKey.generate()
        self.key_file = os.path.join(self.dir, "client_key")
        key.write_private_key_file(self.key_file)
        self.authorized_keys = os.path.join(self.dir, "authorized_keys")
        with open(self.authorized_keys, "w") as out:
            out.write("%s %s nc-test\n" % (key.get_name(), key.get_base64()))
        self.user = "nc-operator"
        self.socket = os.path.join(self.dir, "yangdb.sock")
        self.control = os.path.join(self.dir, "control.sock")
        args = [os.path.join(BUILD_DIR, "bin", "pppoe-plus-switch"),
                "--yangdb-socket", self.socket, "--yangdb-store", os.path.join(self.dir, "running.xml"),
                "--control", self.control, "--startup-config", os.path.join(EXAMPLES, "pppoe-plus.xml"),
                "--netconf-listen", "127.0.0.1:0", "--netconf-authorized-keys", self.authorized_keys,
                "--netconf-user", self.user, "--stay"]
        self.log_path = os.path.join(self.dir, "host.log")
        self.log = open(self.log_path, "wb")
        self.process = subprocess.Popen(args, stdout=self.log, stderr=subprocess.STDOUT)
        try:
            found = self.wait_for(r"NETCONF over SSH on 127\.0\.0\.1:(\d+)", 60)
            self.port = int(found.group(1))
            self.wait_for(r"control socket", 30)
        except AssertionError:
            self.remove()  # a switch that did not come up is not left behind
            raise

    def output(self):
        with open(self.log_path, "rb") as log:
            return log.read().decode("utf-8", "replace")

    def wait_for(self, pattern, timeout):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            found = re.search(pattern, self.output())
            if found:
                return found
            if self.process.poll() is not None:
                break
            time.sleep(0.05)
        raise AssertionError("no %r from the switch:\n%s" % (pattern, self.output()))

    def connect(self, user=None, key_file=None):
        return manager.connect(host="127.0.0.1", port=self.port, username=user or self.user,
                               key_filename=key_file or self.key_file, hostkey_verify=False,
                               allow_agent=False, look_for_keys=False, timeout=60)

    def cli(self, *args):
        return subprocess.run([os.path.join(BUILD_DIR, "bin", "pppoe-plus-cli"), "--socket", self.socket,
                               "--control", self.control] + list(args),
                              capture_output=True, text=True, timeout=60)

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait(60)
        if not self.log.closed:
            self.log.close()
        return self.process.returncode

    def remove(self):
        self.stop()
        shutil.rmtree(self.dir, ignore_errors=True)
