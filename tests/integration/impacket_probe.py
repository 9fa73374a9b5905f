"""Helpers for the tests that drive a KestTCS DCE/RPC server with impacket over ncacn_ip_tcp.

The test passes the server's loopback port as the script's first argument."""
import sys

from impacket.dcerpc.v5 import rpcrt, transport
from impacket.uuid import uuidtup_to_bin

port = int(sys.argv[1])


def connect(uuid=None):
    """A connection to the server, bound to interface `uuid` version 1.0 when one is given."""
    t = transport.DCERPCTransportFactory('ncacn_ip_tcp:127.0.0.1[%d]' % port)
    dce = t.get_dce_rpc()
    dce.connect()
    if uuid:
        dce.bind(uuidtup_to_bin((uuid, '1.0')))
    return dce


def fault_of(dce, opnum):
    """'fault <status>' for a call of `opnum` with no stub data, or 'no fault'."""
    try:
        dce.call(opnum, b'')
        dce.recv()
        return 'no fault'
    except rpcrt.DCERPCException as e:
        return 'fault ' + str(e)


def bind_error(uuid):
    """Why a bind to interface `uuid` is refused, or None when it binds."""
    try:
        connect(uuid)
        return None
    except rpcrt.DCERPCException as e:
        return str(e)
