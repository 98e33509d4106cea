// Python's MIME reader: declared with its codecs in python_codec.h.
#include "support/python_codec.h"
