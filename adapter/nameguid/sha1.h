// SHA-1 (FIPS 180-1) as an incremental context: the port name GUID is derived
// from it, and the driver carries no hashing library of its own.
#pragma once

#include "common/platform.h"

#define SHA1_HASH_WORDS 5
#define SHA1_BLOCK_BYTES 64

typedef struct _Sha1Context {
    ULONG Hash[SHA1_HASH_WORDS];         // H0..H4; the digest once Computed
    ULONG LengthLow;                     // message length in bits, low word
    ULONG LengthHigh;                    // and high word
    UCHAR MessageBlock[SHA1_BLOCK_BYTES];
    ULONG MessageBlockIndex;             // next free byte of MessageBlock
    ULONG Computed;                      // padding done, Hash is final
    ULONG Corrupted;                     // input after Computed, or > 2^64 bits
} Sha1Context, *PSha1Context;

VOID Sha1Reset(_Out_ Sha1Context *context);

// Input after the digest is final, or past 2^64 bits, marks the context
// corrupted instead of silently hashing something else.
VOID Sha1Input(_Inout_ Sha1Context *context, _In_reads_bytes_(length) const UCHAR *bytes, _In_ ULONG length);

// 1 when Hash holds the digest, 0 when the context is corrupted.
int Sha1Result(_Inout_ Sha1Context *context);
