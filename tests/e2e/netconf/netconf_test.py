"""The switch configured and queried over NETCONF with ncclient, end to end:
the real pppoe-plus-switch on 127.0.0.1 with a generated host key and a
client key made for the run. Edits take the datastore's path to the agent
(validation, delivery, rollback), locks hold against other sessions and
pppoe-plus-cli, state comes from the agent and from the forwarding plane
(subscribers, punt policing), and clients that misbehave do not stop the
server.
"""
import os
import unittest

import paramiko
from lxml import etree
from ncclient.operations.rpc import RPCError

from netconf_support import (EXAMPLES, IFM_NS, NC_BASE, PLUS_NS, Switch, config, plus, port)

PLANE_NS = "urn:quendal:yang:quendal-forwarding-plane"
NS = {"nc": NC_BASE, "pp": PLUS_NS, "ifm": IFM_NS, "fp": PLANE_NS}


def inline(xml):
    """The <source> of a copy-config that carries its configuration inline."""
    return '<source xmlns="%s">%s</source>' % (NC_BASE, xml)


def example_config():
    with open(os.path.join(EXAMPLES, "pppoe-plus.xml")) as f:
        return inline(config(f.read().split("?>", 1)[-1]))


def texts(reply, xpath):
    return [e.text for e in reply.data_ele.xpath(xpath, namespaces=NS)]


class Netconf(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.switch = Switch()
        cls.m = cls.switch.connect()

    @classmethod
    def tearDownClass(cls):
        cls.m.close_session()
        status, output = cls.switch.stop(), cls.switch.output()
        cls.switch.remove()
        # A clean stop with no sanitizer report (the asan preset runs this too).
        reports = ("AddressSanitizer", "ThreadSanitizer", "runtime error:")
        if status != 0 or any(report in output for report in reports):
            raise AssertionError("the switch ended with %s:\n%s" % (status, output))

    def setUp(self):
        # Every test starts from the example configuration.
        self.m.copy_config(source=example_config(), target="running")

    def running(self):
        return self.m.get_config("running").data_xml

    def assertRefused(self, call, tag, path=None, message=None):
        with self.assertRaises(RPCError) as refused:
            call()
        self.assertEqual(refused.exception.tag, tag, refused.exception.message)
        if path is not None:
            self.assertIn(path, refused.exception.path or "", refused.exception.message)
        if message is not None:
            self.assertIn(message, refused.exception.message)
        return refused.exception

    def test_get_config_returns_the_example_and_filters_select_from_it(self):
        everything = self.m.get_config("running")
        self.assertEqual(texts(everything, "//pp:global-enable/pp:enable"), ["true"])
        self.assertEqual(texts(everything, "//ifm:interface[ifm:name='XGigabitEthernet0/0/1']//pp:ifindex"), ["49"])
        host_key = os.path.join(self.switch.dir, "netconf_host_ed25519_key")
        self.assertIn("host key %s (generated)" % host_key, self.switch.output())
        self.assertEqual(oct(os.stat(host_key).st_mode & 0o777), "0o600")

        rows = [
            ("subtree selection", ("subtree", plus("<vendor-id/>")), "//pp:vendor-id/pp:vendor-id", ["3561"]),
            ("subtree content match", ("subtree", '<ifm xmlns="%s"><interfaces><interface><name>'
                                       'XGigabitEthernet0/0/1</name></interface></interfaces></ifm>' % IFM_NS),
             "//pp:trusted-enable", ["true"]),
            ("content match without a match", ("subtree", '<ifm xmlns="%s"><interfaces><interface><name>Eth9'
                                               '</name></interface></interfaces></ifm>' % IFM_NS), "//pp:*", []),
            ("xpath", ("xpath", ({"p": PLUS_NS}, "/p:pppoe-plus/p:global-enable")), "//pp:enable", ["true"]),
        ]
        for why, selection, xpath, expected in rows:
            with self.subTest(why):
                reply = self.m.get_config("running", filter=selection)
                self.assertEqual(texts(reply, xpath), expected)
                self.assertEqual(texts(reply, "//pp:global-tags-policy"), [], "only the selection is returned")

    def test_edit_operations_change_exactly_what_they_name(self):
        self.m.edit_config(target="running", config=config(
            plus('<vendor-id><vendor-id>2011</vendor-id></vendor-id>'),
            port("GigabitEthernet0/0/3", '<trusted-port nc:operation="create"><ifindex>7</ifindex>'
                                         '<trusted-enable>true</trusted-enable></trusted-port>')))
        self.switch.wait_for(r"trust-port-cfg enable 1 ifIndex 7", 10)
        self.m.edit_config(target="running", default_operation="none", config=config(
            port("GigabitEthernet0/0/3", '<trusted-port nc:operation="delete"/>'),
            plus('<global-enable nc:operation="replace"><enable>false</enable></global-enable>'
                 '<global-ignore-policy nc:operation="remove"/>')))
        running = self.m.get_config("running")
        self.assertEqual(texts(running, "//pp:vendor-id/pp:vendor-id"), ["2011"])
        self.assertEqual(texts(running, "//pp:enable"), ["false"])
        self.assertEqual(texts(running, "//ifm:interface[ifm:name='GigabitEthernet0/0/3']//pp:ifindex"), [])
        self.switch.wait_for(r"trust-port-cfg enable 0 ifIndex 7", 10)

        # test-only validates and changes nothing; copy-config replaces all.
        before = self.running()
        self.m.edit_config(target="running", test_option="test-only",
                           config=config(plus('<vendor-id><vendor-id>7</vendor-id></vendor-id>')))
        self.assertEqual(self.running(), before)
        self.m.copy_config(source=inline(config(plus('<vendor-id><vendor-id>9</vendor-id></vendor-id>'))),
                           target="running")
        self.assertEqual(texts(self.m.get_config("running"), "//pp:vendor-id/pp:vendor-id"), ["9"])
        self.assertEqual(texts(self.m.get_config("running"), "//ifm:interface"), [])
        # The base model has no running target for delete-config.
        self.assertRefused(lambda: self.m.delete_config(target="running"), "operation-failed", None, "running")

    def test_refused_edits_name_the_node_and_change_nothing_and_the_agents_refusal_rolls_back(self):
        before = self.running()
        rows = [
            ("a value outside its enumeration", plus('<global-tags-policy><tags-policy>sometimes</tags-policy>'
                                                     '</global-tags-policy>'),
             "invalid-value", "/quendal-pppoe-plus:pppoe-plus/global-tags-policy/tags-policy"),
            ("deleting what is not there", plus('<global-ignore-policy nc:operation="delete"/>'), "data-missing",
             "/quendal-pppoe-plus:pppoe-plus/global-ignore-policy"),
            ("creating what is there", port("XGigabitEthernet0/0/1", '<trusted-port nc:operation="create">'
                                                                    '<ifindex>49</ifindex></trusted-port>'),
             "data-exists", "trusted-port"),
            ("a node the model lacks", plus("<colour>blue</colour>"), "unknown-element", None),
        ]
        for why, edit, tag, path in rows:
            with self.subTest(why):
                self.assertRefused(lambda: self.m.edit_config(target="running", config=config(edit)), tag, path)
                self.assertEqual(self.running(), before)

        # A value the agent refuses is rolled back: the agent's trust-port request to the forwarding manager fails once.
        self.assertEqual(self.switch.cli("world", "fail", "RPC_IdlMsgCreate").returncode, 0)
        refused = self.assertRefused(
            lambda: self.m.edit_config(target="running", config=config(
                plus('<vendor-id><vendor-id>2011</vendor-id></vendor-id>'),
                port("GigabitEthernet0/0/2", "<trusted-port><ifindex>6</ifindex>"
                                             "<trusted-enable>true</trusted-enable></trusted-port>"))),
            "operation-failed",
            "/quendal-ifm:ifm/interfaces/interface[name='GigabitEthernet0/0/2']/quendal-pppoe-plus:pppoe-plus-port"
            "/trusted-port", "refused by pppoe_plus")
        self.assertIn("create of", refused.message)
        self.assertEqual(self.running(), before)
        # The vendor-id change the agent had taken is undone there as well.
        encapsulation = self.m.get(filter=("subtree", plus("<query-encapsulation/>")))
        self.assertEqual(texts(encapsulation, "//pp:query-encapsulation/pp:vendor-id"), ["3561"])
        self.switch.cli("world", "fail", "clear")

    def test_a_lock_holds_against_other_sessions_and_the_cli_until_its_session_ends(self):
        other = self.switch.connect()
        try:
            self.m.lock("running")
            denied = self.assertRefused(lambda: other.lock("running"), "lock-denied")
            self.assertIn("<session-id>%s</session-id>" % self.m.session_id, denied.info)
            self.assertRefused(lambda: other.edit_config(target="running", config=config(
                plus('<vendor-id><vendor-id>1</vendor-id></vendor-id>'))), "in-use")
            cli = self.switch.cli("vendor-id", "2011")
            self.assertEqual(cli.returncode, 1, cli.stderr)
            self.assertIn("locked by NETCONF session %s" % self.m.session_id, cli.stderr)
            self.m.edit_config(target="running", config=config(plus('<vendor-id><vendor-id>5</vendor-id></vendor-id>')))
            self.m.unlock("running")

            other.lock("running")
            self.assertRefused(lambda: self.m.lock("running"), "lock-denied")
            # Killing the holder's session ends its lock.
            self.m.kill_session(other.session_id)
            self.m.lock("running")
            self.assertEqual(self.switch.cli("vendor-id", "2011").returncode, 1)
            self.m.unlock("running")
            self.assertEqual(self.switch.cli("vendor-id", "2011").returncode, 0)
        finally:
            if other.connected:
                other.close_session()

    def test_get_returns_the_agents_and_the_planes_state_and_operations_reach_the_agent(self):
        self.m.dispatch(etree.fromstring('<reset-statistics xmlns="%s"/>' % PLUS_NS))
        replay = self.switch.cli("world", "port", "replay",
                                 "GigabitEthernet0/0/1=" + os.path.join(EXAMPLES, "captures", "subscribers.pcap"))
        self.assertEqual(replay.returncode, 0, replay.stderr)
        stats = self.m.get(filter=("subtree", plus("<query-statistics/>")))
        self.assertEqual(texts(stats, "//pp:query-table[pp:interface-name='GigabitEthernet0/0/1']"
                                      "/pp:padr-receive-packets"), ["1"], stats.data_xml)
        self.assertEqual(texts(stats, "//pp:query-table[pp:interface-name='XGigabitEthernet0/0/1(*T)']"
                                      "/pp:padi-send-packets"), ["1"], stats.data_xml)
        everything = self.m.get()
        self.assertEqual(texts(everything, "//pp:query-policy/pp:policy"), ["1"])
        self.assertEqual(texts(everything, "//pp:global-enable/pp:enable"), ["true"])
        self.assertEqual(texts(everything, "//fp:port[fp:name='XGigabitEthernet0/0/1']/fp:punt-policing/fp:rate"),
                         ["1000"], "the uplink's own bucket")
        # An expression that names no single path is evaluated over all the data.
        anywhere = self.m.get(filter=("xpath", ({"p": PLUS_NS}, "//p:query-policy/p:ignore-reply")))
        self.assertEqual(texts(anywhere, "//pp:ignore-reply"), ["1"])
        self.assertEqual(texts(anywhere, "//pp:policy"), [])

        self.m.dispatch(etree.fromstring('<set-debugging xmlns="%s"><debug-switch>true</debug-switch>'
                                         '<debug-type>4</debug-type></set-debugging>' % PLUS_NS))
        self.assertRefused(lambda: self.m.dispatch(etree.fromstring(
            '<set-debugging xmlns="%s"><debug-switch>true</debug-switch><debug-type>9</debug-type>'
            '</set-debugging>' % PLUS_NS)), "operation-failed", None, "range")  # refused by libnetconf2's parse

        # The plane's subscribers and punt policing.
        subscribers = self.m.get(filter=("subtree", '<forwarding-plane xmlns="%s"><subscribers/></forwarding-plane>'
                                         % PLANE_NS))
        mine = "//fp:subscriber[fp:mac='02:00:00:00:00:01']"
        self.assertEqual(texts(subscribers, mine + "/fp:port"), ["GigabitEthernet0/0/1"], subscribers.data_xml)
        self.assertEqual(texts(subscribers, mine + "/fp:circuit-id"), ["eth 0/0/1:100.0 AccessSwitch-1/0/0/0/0/0"])
        self.assertEqual(texts(subscribers, mine + "/fp:last-code"), ["PADR"])
        self.assertEqual(texts(subscribers, "//fp:punt-policing"), [], "the filter selects the subscribers only")
        rate = self.m.get(filter=("xpath", ({"q": PLANE_NS}, "/q:forwarding-plane/q:punt-policing/q:global/q:rate")))
        self.assertEqual(texts(rate, "//fp:rate"), ["2000"], rate.data_xml)

    def test_get_schema_serves_the_switchs_modules(self):
        for module in ("quendal-pppoe-plus", "quendal-ifm", "quendal-forwarding-plane"):
            self.assertIn("module %s {" % module, self.m.get_schema(module).data)
        self.assertRefused(lambda: self.m.get_schema("no-such-module"), "invalid-value")

    def test_misbehaving_clients_leave_the_server_serving(self):
        def raw_channel():
            transport = paramiko.Transport(("127.0.0.1", self.switch.port))
            transport.connect(username=self.switch.user,
                              pkey=paramiko.ECDSAKey.from_private_key_file(self.switch.key_file))
            channel = transport.open_session()
            channel.invoke_subsystem("netconf")
            channel.settimeout(30)
            channel.sendall('<hello xmlns="%s"><capabilities><capability>urn:ietf:params:netconf:base:1.0'
                            '</capability></capabilities></hello>]]>]]>' % NC_BASE)
            return transport, channel

        def read_until(channel, end):
            data = b""
            while end not in data:
                chunk = channel.recv(65536)
                if not chunk:
                    break
                data += chunk
            return data

        # Malformed XML is answered with an error or ends that session.
        transport, channel = raw_channel()
        read_until(channel, b"]]>]]>")
        channel.sendall('<rpc message-id="1" xmlns="%s"><get-config><source><running/></get-config>]]>]]>' % NC_BASE)
        answer = read_until(channel, b"]]>]]>")
        self.assertTrue(answer == b"" or b"<rpc-error>" in answer, answer)
        transport.close()

        # A connection dropped in the middle of an RPC.
        transport, channel = raw_channel()
        read_until(channel, b"]]>]]>")
        channel.sendall('<rpc message-id="2" xmlns="%s"><edit-config><target><running/>' % NC_BASE)
        transport.close()

        # An RPC nobody defines is refused; the session goes on.
        session = self.switch.connect()
        with self.assertRaises(RPCError):
            session.dispatch(etree.fromstring('<frobnicate xmlns="urn:example:none"/>'))
        self.assertIn("<enable>true</enable>", session.get_config("running").data_xml)
        session.close_session()

        # A key that is not authorized gets no session.
        stranger = paramiko.ECDSAKey.generate()
        stranger_file = os.path.join(self.switch.dir, "stranger_key")
        stranger.write_private_key_file(stranger_file)
        with self.assertRaises(Exception):
            self.switch.connect(key_file=stranger_file)
        self.assertIn("<enable>true</enable>", self.switch.connect().get_config("running").data_xml)


if __name__ == "__main__":
    unittest.main(verbosity=2)
