// The LZFSE codec: one include for the encoder and the decoder.
#pragma once

#include <QEVRLZFSE/Decoder.h>
#include <QEVRLZFSE/Encoder.h>
