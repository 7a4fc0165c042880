// SHA-1 of FIPS 180-1. Kept byte-oriented and free of platform calls: it runs
// once per publication over a few hundred bytes.
#include "sha1.h"

static inline ULONG Sha1Rotl(ULONG value, int bits)
{
    return (value << bits) | (value >> (32 - bits));
}

static VOID Sha1ProcessBlock(_Inout_ Sha1Context *context)
{
    static const ULONG K[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};
    ULONG W[80];
    ULONG A, B, C, D, E;
    int t;

    for (t = 0; t < 16; t++) {
        W[t] = ((ULONG)context->MessageBlock[t * 4] << 24) | ((ULONG)context->MessageBlock[t * 4 + 1] << 16) |
               ((ULONG)context->MessageBlock[t * 4 + 2] << 8) | ((ULONG)context->MessageBlock[t * 4 + 3]);
    }
    for (t = 16; t < 80; t++) {
        W[t] = Sha1Rotl(W[t - 3] ^ W[t - 8] ^ W[t - 14] ^ W[t - 16], 1);
    }

    A = context->Hash[0];
    B = context->Hash[1];
    C = context->Hash[2];
    D = context->Hash[3];
    E = context->Hash[4];

    for (t = 0; t < 80; t++) {
        ULONG f;
        ULONG k;
        if (t < 20) {
            f = (B & C) | ((~B) & D);
            k = K[0];
        } else if (t < 40) {
            f = B ^ C ^ D;
            k = K[1];
        } else if (t < 60) {
            f = (B & C) | (B & D) | (C & D);
            k = K[2];
        } else {
            f = B ^ C ^ D;
            k = K[3];
        }
        ULONG temp = Sha1Rotl(A, 5) + f + E + W[t] + k;
        E = D;
        D = C;
        C = Sha1Rotl(B, 30);
        B = A;
        A = temp;
    }

    context->Hash[0] += A;
    context->Hash[1] += B;
    context->Hash[2] += C;
    context->Hash[3] += D;
    context->Hash[4] += E;
    context->MessageBlockIndex = 0;
}

VOID Sha1Reset(_Out_ Sha1Context *context)
{
    context->Hash[0] = 0x67452301;
    context->Hash[1] = 0xEFCDAB89;
    context->Hash[2] = 0x98BADCFE;
    context->Hash[3] = 0x10325476;
    context->Hash[4] = 0xC3D2E1F0;
    context->LengthLow = 0;
    context->LengthHigh = 0;
    context->MessageBlockIndex = 0;
    context->Computed = 0;
    context->Corrupted = 0;
}

VOID Sha1Input(_Inout_ Sha1Context *context, _In_reads_bytes_(length) const UCHAR *bytes, _In_ ULONG length)
{
    if (length == 0) {
        return;
    }
    if (context->Computed || context->Corrupted) {
        context->Corrupted = 1;
        return;
    }

    for (ULONG i = 0; i < length; i++) {
        context->MessageBlock[context->MessageBlockIndex++] = bytes[i];

        context->LengthLow += 8;
        if (context->LengthLow == 0) {
            context->LengthHigh++;
            if (context->LengthHigh == 0) {
                // The length field of the padding cannot hold this message.
                context->Corrupted = 1;
                return;
            }
        }

        if (context->MessageBlockIndex == SHA1_BLOCK_BYTES) {
            Sha1ProcessBlock(context);
        }
    }
}

static VOID Sha1PadMessage(_Inout_ Sha1Context *context)
{
    // The 0x80 marker always fits (a full block was processed on arrival); the
    // eight length bytes may not, and then they move to a block of their own.
    context->MessageBlock[context->MessageBlockIndex++] = 0x80;
    if (context->MessageBlockIndex > SHA1_BLOCK_BYTES - 8) {
        while (context->MessageBlockIndex < SHA1_BLOCK_BYTES) {
            context->MessageBlock[context->MessageBlockIndex++] = 0;
        }
        Sha1ProcessBlock(context);
    }
    while (context->MessageBlockIndex < SHA1_BLOCK_BYTES - 8) {
        context->MessageBlock[context->MessageBlockIndex++] = 0;
    }

    context->MessageBlock[56] = (UCHAR)(context->LengthHigh >> 24);
    context->MessageBlock[57] = (UCHAR)(context->LengthHigh >> 16);
    context->MessageBlock[58] = (UCHAR)(context->LengthHigh >> 8);
    context->MessageBlock[59] = (UCHAR)(context->LengthHigh);
    context->MessageBlock[60] = (UCHAR)(context->LengthLow >> 24);
    context->MessageBlock[61] = (UCHAR)(context->LengthLow >> 16);
    context->MessageBlock[62] = (UCHAR)(context->LengthLow >> 8);
    context->MessageBlock[63] = (UCHAR)(context->LengthLow);
    Sha1ProcessBlock(context);
}

int Sha1Result(_Inout_ Sha1Context *context)
{
    if (context->Corrupted) {
        return 0;
    }
    if (!context->Computed) {
        Sha1PadMessage(context);
        // The block held message bytes; leave nothing of them behind.
        RtlZeroMemory(context->MessageBlock, sizeof(context->MessageBlock));
        context->Computed = 1;
    }
    return 1;
}
