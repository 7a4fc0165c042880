#define AM_UNIT AM_UNIT_ADAPTER
#include "amcommon.h"
#include "amcomplete.h"

static NTSTATUS completeWithBoost(_Inout_ PIRP irp, _In_ NTSTATUS status, _In_ ULONG_PTR information,
                                  _In_ CCHAR boost)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, boost);
    return status;
}

NTSTATUS completeIrp(_Inout_ PIRP irp, _In_ NTSTATUS status, _In_ ULONG_PTR information)
{
    return completeWithBoost(irp, status, information, IO_NO_INCREMENT);
}

NTSTATUS completeIrpBoosted(_Inout_ PIRP irp, _In_ NTSTATUS status, _In_ ULONG_PTR information)
{
    return completeWithBoost(irp, status, information, AM_SOUND_BOOST);
}
