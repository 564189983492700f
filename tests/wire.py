"""Bytes of the names, records and packets that several tests expect, written out by hand.

They are those of the model T5140 on a bridge 00:11:22:aa:bb:cc with the address 192.168.77.1, and
of the printer "HP" "Model 12" with the command set "PJL,PCL" at port 0.
"""

from lab.packets import hexbytes

# Names
HOST = "17 'T5140_00-11-22-AA-BB-CC' 05 'local' 00"
IPP = "04 '_ipp' 04 '_tcp' 05 'local' 00"
PDL = "0F '_pdl-datastream' 04 '_tcp' 05 'local' 00"
UNIVERSAL = "0A '_universal' 04 '_sub' 04 '_ipp' 04 '_tcp' 05 'local' 00"
INSTANCE = "18 'HP Model 12 (aa:bb:cc) 0'"

# Headers: ID, flags, then the counts of questions, answers, authority and additional records
QUERY_1 = "0000 0000 0001 0000 0000 0000"
QUERY_2 = "0000 0000 0002 0000 0000 0000"
SERVICE_PROBE = "0000 0000 0002 0000 0002 0000"
RESPONSE_1 = "0000 8400 0000 0001 0000 0000"
RESPONSE_2 = "0000 8400 0000 0002 0000 0000"
RESPONSE_4 = "0000 8400 0000 0004 0000 0000"
RESPONSE_5 = "0000 8400 0000 0005 0000 0000"

ADDRESS = "0004 C0 A8 4D 01"
TTL_120 = "00000078"
TTL_4500 = "00001194"

HOST_PROBE = hexbytes(f"{QUERY_1} {HOST} 0001 0001")

HOST_QUESTION = HOST_PROBE

HOST_ANSWER = hexbytes(f"{RESPONSE_1} {HOST} 0001 0001 {TTL_120} {ADDRESS}")

# The printer's TXT strings
TXT_BEFORE_RP = """
    09 'txtvers=1'
    08 'qtotal=1'
    23 'pdl=application/PJL,application/PCL'
    0F 'usb_CLS=PRINTER'"""
TXT_AFTER_RP = """
    0B 'ty=Model 12'
    15 'product=(HP Model 12)'
    0A 'usb_MFG=HP'
    10 'usb_MDL=Model 12'
    1C 'note=T5140_00-11-22-AA-BB-CC'
    0F 'usb_CMD=PJL,PCL'"""
IPP_TXT = f"{TXT_BEFORE_RP} 0A 'rp=USB1_LQ' {TXT_AFTER_RP} 0B 'priority=20'"
PDL_TXT = f"{TXT_BEFORE_RP} {TXT_AFTER_RP} 0B 'priority=10'"

# What its two services are announced and answered with
IPP_RECORDS = hexbytes(
    f"""{RESPONSE_5}
    {HOST} 0001 8001 {TTL_120} {ADDRESS}
    {IPP} 000C 0001 {TTL_4500} 002A {INSTANCE} {IPP}
    {INSTANCE} {IPP} 0021 8001 {TTL_120} 0025 0000 0000 0277 {HOST}
    {INSTANCE} {IPP} 0010 8001 {TTL_4500} 00C9 {IPP_TXT}
    {UNIVERSAL} 000C 0001 {TTL_4500} 002A {INSTANCE} {IPP}"""
)
PDL_RECORDS = hexbytes(
    f"""{RESPONSE_4}
    {HOST} 0001 8001 {TTL_120} {ADDRESS}
    {PDL} 000C 0001 {TTL_4500} 0035 {INSTANCE} {PDL}
    {INSTANCE} {PDL} 0021 8001 {TTL_120} 0025 0000 0000 238C {HOST}
    {INSTANCE} {PDL} 0010 8001 {TTL_4500} 00BE {PDL_TXT}"""
)

IPP_PROBE = hexbytes(
    f"""{SERVICE_PROBE}
    {HOST} 00FF 8001
    {INSTANCE} {IPP} 00FF 8001
    {HOST} 0001 0001 {TTL_120} {ADDRESS}
    {INSTANCE} {IPP} 0021 0001 {TTL_120} 0025 0000 0000 0277 {HOST}"""
)
PDL_PROBE = hexbytes(
    f"""{SERVICE_PROBE}
    {HOST} 00FF 8001
    {INSTANCE} {PDL} 00FF 8001
    {HOST} 0001 0001 {TTL_120} {ADDRESS}
    {INSTANCE} {PDL} 0021 0001 {TTL_120} 0025 0000 0000 238C {HOST}"""
)

IPP_GOODBYE = hexbytes(
    f"""{RESPONSE_2}
    {IPP} 000C 0001 00000000 002A {INSTANCE} {IPP}
    {UNIVERSAL} 000C 0001 00000000 002A {INSTANCE} {IPP}"""
)
PDL_GOODBYE = hexbytes(f"{RESPONSE_1} {PDL} 000C 0001 00000000 0035 {INSTANCE} {PDL}")
