"""The records and callback types of the library's C interface that more than
one cross-check drives through ctypes."""
import ctypes

I32 = ctypes.c_int32


class PartInfo(ctypes.Structure):
    _fields_ = [("charset", ctypes.c_char * 20), ("encoding", ctypes.c_char * 30),
                ("filename", ctypes.c_char * 256), ("content_id", ctypes.c_char * 80),
                ("content_type", ctypes.c_char * 20), ("content_subtype", ctypes.c_char * 22),
                ("parameters", ctypes.c_ubyte * 1028), ("size_on_disk", ctypes.c_uint32),
                ("reserved", ctypes.c_char * 64)]


assert ctypes.sizeof(PartInfo) == 1524
NEXT_PART = ctypes.CFUNCTYPE(I32, ctypes.POINTER(PartInfo))
BODY = ctypes.CFUNCTYPE(I32, ctypes.c_void_p, I32, ctypes.POINTER(I32))
DONE = ctypes.CFUNCTYPE(I32, I32, I32)
EXTRA = ctypes.CFUNCTYPE(I32, ctypes.c_char_p, I32)
