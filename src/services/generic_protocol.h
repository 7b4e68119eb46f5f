#pragma once
// CKXVEGenericProtocol: a raw byte channel to one numbered protocol endpoint of a target, opened
// by ITarget8::OpenGenericProtocol. Like every public object it holds only the private client and
// the identifiers it speaks for (the target's handle and the protocol number, which is also the
// channel's name in every request); it buffers nothing, so each call is one request and one
// response.

#include <cstdint>

#include "api/automation_object.h"
#include "api/server_call.h"
#include "vekxapi/vekxapi.h"

namespace qv {

// The most one Write sends; the caller learns from the count written where to go on from.
inline constexpr size_t kMaxProtocolWrite = 0x10000;

class CKXVEGenericProtocol final : public AutomationObject<CKXVEGenericProtocol, IGenericProtocol> {
 public:
  CKXVEGenericProtocol(SharedClient client, uint32_t target, uint32_t protocol) noexcept;

  static bool IsFamily(REFIID iid);
  static const IID& DispatchIid() { return IID_IGenericProtocol; }

  // Closes the channel on the server; the sink advised with the open stays advised.
  HRESULT STDMETHODCALLTYPE Close() override;
  // arrData: VT_ARRAY | VT_UI1 or VT_I1, or an array of VARIANT numbers 0 to 255. uOffset from 0
  // to the element count (at the count: an empty write). *puWritten is what the endpoint took.
  HRESULT STDMETHODCALLTYPE Write(VARIANT arrData, LONG uOffset, ULONG* puWritten) override;
  // *parrData: VT_ARRAY | VT_UI1 of what arrived, waiting a bounded time for the first byte;
  // empty when nothing came. Fails once the endpoint has closed and everything was read.
  HRESULT STDMETHODCALLTYPE Read(ULONG uBytes, VARIANT* parrData) override;
  // True while the channel is open and its endpoint available. The request goes out before the
  // out-pointer is looked at.
  HRESULT STDMETHODCALLTYPE get_Status(VARIANT_BOOL* pStatus) override;

 private:
  const SharedClient client_;
  const uint32_t target_;
  const uint32_t protocol_;
};

// ITarget8::OpenGenericProtocol for the target `target` of `client`: advises `sink` on the
// GenericProtocol group, opens the channel, and on failure withdraws the advice without a cancel.
HRESULT OpenGenericProtocol(const SharedClient& client, uint32_t target, uint32_t protocol,
                            IEventGenericProtocol* sink, IGenericProtocol** channel) noexcept;

}  // namespace qv
