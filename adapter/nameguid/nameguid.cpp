// Port name GUID derivation.
#include "nameguid.h"
#include "sha1.h"

const GUID PORT_NAME_NAMESPACE = {0xD04F0604, 0xBBDA, 0x4D3F, {0x97, 0xA5, 0x22, 0xD9, 0xD7, 0x32, 0x30, 0x23}};

GUID *CreateNameGuid(_In_ const GUID *nameSpace, _In_z_ PCWSTR name, _Out_ GUID *out)
{
    Sha1Context context;
    UCHAR bytes[16];
    ULONG i;

    Sha1Reset(&context);

    // The namespace as a GUID lies in memory on a little-endian machine; spelled
    // out so that the hash never depends on the host's byte order.
    bytes[0] = (UCHAR)(nameSpace->Data1);
    bytes[1] = (UCHAR)(nameSpace->Data1 >> 8);
    bytes[2] = (UCHAR)(nameSpace->Data1 >> 16);
    bytes[3] = (UCHAR)(nameSpace->Data1 >> 24);
    bytes[4] = (UCHAR)(nameSpace->Data2);
    bytes[5] = (UCHAR)(nameSpace->Data2 >> 8);
    bytes[6] = (UCHAR)(nameSpace->Data3);
    bytes[7] = (UCHAR)(nameSpace->Data3 >> 8);
    for (i = 0; i < 8; i++) {
        bytes[8 + i] = nameSpace->Data4[i];
    }
    Sha1Input(&context, bytes, sizeof(bytes));

    for (i = 0; name[i] != L'\0'; i++) {
        UCHAR unit[2];
        unit[0] = (UCHAR)((USHORT)name[i]);
        unit[1] = (UCHAR)((USHORT)name[i] >> 8);
        Sha1Input(&context, unit, sizeof(unit));
    }

    // A name is far below the hash's length limit: the result cannot fail here.
    (VOID)Sha1Result(&context);

    // H0..H3, each least significant byte first, are the GUID's memory image:
    // Data1 = H0, Data2/Data3 = the low/high halves of H1, Data4 = H2 and H3.
    out->Data1 = context.Hash[0];
    out->Data2 = (USHORT)(context.Hash[1] & 0xFFFF);
    out->Data3 = (USHORT)(context.Hash[1] >> 16);
    for (i = 0; i < 4; i++) {
        out->Data4[i] = (UCHAR)(context.Hash[2] >> (8 * i));
        out->Data4[4 + i] = (UCHAR)(context.Hash[3] >> (8 * i));
    }

    out->Data3 = (USHORT)((out->Data3 & 0x0FFF) | 0x4000);
    out->Data4[0] = (UCHAR)((out->Data4[0] & 0x1F) | 0xA0);
    return out;
}
