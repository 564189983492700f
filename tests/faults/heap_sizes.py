"""Sizes in bytes of what the monitor takes from the heap, by which rules tell allocations apart."""

STATUS_BUFFER = 40961
# The text and the link to the next one.
TXT_BUFFER = 528
ENTRY = 232
DEVICE_ID = 513
# The raw-port service's host name, instance name and type name, each with its terminator.
PDL_HOST = 30
PDL_INSTANCE = 52
PDL_TYPE = 27
