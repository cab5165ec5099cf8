#!/bin/sh
# What the lab's concentrators start instead of pppd (pppoe-server -q):
# these machines have no kernel PPP, so a real pppd would fail at once and
# the concentrator would end the session with a PADT right after its PADS.
# This holds the session for a while instead, so that it stays up until the
# subscriber ends it with its own PADT (or this ends, after 60 seconds, and
# the concentrator sends its PADT).
exec sleep 60
