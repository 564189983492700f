"""The printers of the sweep and the packets of their services, written out by hand.

The first has a model in the status file, the second one in its device id alone, the third comes
when the first goes. See wire.py for the parts that all packets have in common.
"""

import dataclasses

import wire
from lab.packets import hexbytes
from lab.printers import Printer

PDL_TYPE, IPP_TYPE = "_pdl-datastream._tcp", "_ipp._tcp"
DEVICE_ID = "MFG:HP;MODEL:Model 56;CMD:PCL;"


@dataclasses.dataclass(frozen=True)
class Service:
    """One service of a printer: its names, and every packet that is sent for it."""

    port: int
    name: str
    type: str
    probe: bytes
    records: bytes
    goodbye: bytes


def _txt(priority, queue, manufacturer, model):
    return f"""{wire.TXT_BEFORE_RP} {queue}
        0B 'ty={model}'
        {manufacturer[0]} 'product=({manufacturer[2]} {model})'
        {manufacturer[1]} 'usb_MFG={manufacturer[2]}'
        10 'usb_MDL={model}'
        1C 'note=T5140_00-11-22-AA-BB-CC'
        0F 'usb_CMD=PJL,PCL'
        0B 'priority={priority}'"""


def _pdl(port, name, number, txt_length, manufacturer, model):
    instance = f"18 '{name}' {wire.PDL}"
    server = f"0025 0000 0000 {number} {wire.HOST}"
    txt = f"{txt_length} {_txt(10, '', manufacturer, model)}"
    return Service(
        port,
        name,
        PDL_TYPE,
        hexbytes(
            f"""{wire.SERVICE_PROBE}
            {wire.HOST} 00FF 8001
            {instance} 00FF 8001
            {wire.HOST} 0001 0001 {wire.TTL_120} {wire.ADDRESS}
            {instance} 0021 0001 {wire.TTL_120} {server}"""
        ),
        hexbytes(
            f"""{wire.RESPONSE_4}
            {wire.HOST} 0001 8001 {wire.TTL_120} {wire.ADDRESS}
            {wire.PDL} 000C 0001 {wire.TTL_4500} 0035 {instance}
            {instance} 0021 8001 {wire.TTL_120} {server}
            {instance} 0010 8001 {wire.TTL_4500} {txt}"""
        ),
        hexbytes(f"{wire.RESPONSE_1} {wire.PDL} 000C 0001 00000000 0035 {instance}"),
    )


def _ipp(port, name, queue, txt_length, manufacturer, model):
    instance = f"18 '{name}' {wire.IPP}"
    server = f"0025 0000 0000 0277 {wire.HOST}"
    txt = f"{txt_length} {_txt(20, queue, manufacturer, model)}"
    return Service(
        port,
        name,
        IPP_TYPE,
        hexbytes(
            f"""{wire.SERVICE_PROBE}
            {wire.HOST} 00FF 8001
            {instance} 00FF 8001
            {wire.HOST} 0001 0001 {wire.TTL_120} {wire.ADDRESS}
            {instance} 0021 0001 {wire.TTL_120} {server}"""
        ),
        hexbytes(
            f"""{wire.RESPONSE_5}
            {wire.HOST} 0001 8001 {wire.TTL_120} {wire.ADDRESS}
            {wire.IPP} 000C 0001 {wire.TTL_4500} 002A {instance}
            {instance} 0021 8001 {wire.TTL_120} {server}
            {instance} 0010 8001 {wire.TTL_4500} {txt}
            {wire.UNIVERSAL} 000C 0001 {wire.TTL_4500} 002A {instance}"""
        ),
        hexbytes(
            f"""{wire.RESPONSE_2}
            {wire.IPP} 000C 0001 00000000 002A {instance}
            {wire.UNIVERSAL} 000C 0001 00000000 002A {instance}"""
        ),
    )


# The length bytes of the product string and of the manufacturer string, and the manufacturer.
_HP = ("15", "0A", "HP")
_LASER = ("1D", "12", "HP Laser A")

# Each printer's line in the status file, and its services in the order of their registration.
MODELLED = Printer(0, "HP", "Model 12")
UNMODELLED = Printer(1, "HP Laser A", "", last_line="the model is in the device id")
LATER = Printer(2, "HP", "Model 34", last_line="comes when the first goes")

SERVICES = {
    MODELLED.port: (
        _pdl(0, "HP Model 12 (aa:bb:cc) 0", "238C", "00BE", _HP, "Model 12"),
        _ipp(0, "HP Model 12 (aa:bb:cc) 0", "0A 'rp=USB1_LQ'", "00C9", _HP, "Model 12"),
    ),
    UNMODELLED.port: (
        _pdl(1, "HP Laser A  (aa:bb:cc) 1", "238D", "00CE", _LASER, "Model 56"),
        _ipp(1, "HP Laser A  (aa:bb:cc) 1", "0A 'rp=USB2_LQ'", "00D9", _LASER, "Model 56"),
    ),
    LATER.port: (
        _pdl(2, "HP Model 34 (aa:bb:cc) 2", "238E", "00BE", _HP, "Model 34"),
        _ipp(2, "HP Model 34 (aa:bb:cc) 2", "0A 'rp=USB3_LQ'", "00C9", _HP, "Model 34"),
    ),
}
assert SERVICES[0][0].records == wire.PDL_RECORDS and SERVICES[0][1].records == wire.IPP_RECORDS
