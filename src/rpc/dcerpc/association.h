// The server side of one connection-oriented DCE/RPC association, without any I/O: bytes from the
// client go in, PDUs to send and complete calls to dispatch come out. The server's event loop owns
// one per connection; the fuzzer drives it directly.
//
// Rules this engine applies:
// - A fragment longer than the negotiated receive size (kMaxFragmentSize before the bind), a header
//   that does not parse, a PDU type a client never sends, or a body that runs past its fragment
//   closes the connection (the engine reports kClose after queuing nothing further).
// - bind: each presentation context is answered on its own. NDR 2.0 is accepted for a registered
//   interface; NDR64 alone (or any other syntax) gets a provider rejection "proposed transfer
//   syntaxes not supported"; an unregistered interface gets "abstract syntax not supported"; a
//   bind-time feature negotiation context gets negotiate_ack with the features both sides
//   support. When no context is accepted the bind is answered with bind_nak instead and the
//   connection stays unbound, so the client may bind again. A bind that carries authentication is
//   refused with bind_nak "authentication type not recognized".
// - alter_context adds contexts to a bound association and is answered with alter_context_resp.
// - request fragments are reassembled up to kMaxRequestStub bytes; a request on an unknown context
//   gets fault nca_s_unk_if, one above the cap fault nca_s_fault_remote_no_memory, each after its
//   last fragment arrived. A request before any bind gets fault nca_s_proto_error.
// - request bytes are charged to the server's RequestBudget until their call has ended; a fragment
//   the budget has no room for gets fault nca_s_fault_remote_no_memory at once and the connection
//   closes.
// - a bind joins an association group (AssociationGroups decides which); alter_context and later
//   binds keep it.
// - orphaned drops a call still being reassembled; co_cancel, auth3 and shutdown are ignored (a
//   running call cannot be cancelled).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/process_ids.h"
#include "rpc/dcerpc/association_groups.h"
#include "rpc/dcerpc/ndr.h"
#include "rpc/dcerpc/pdu.h"
#include "rpc/dcerpc/request_budget.h"

namespace kesttcs::dcerpc {

// The largest request stub (all fragments together) the server accepts.
inline constexpr size_t kMaxRequestStub = 1024 * 1024;

// kNamedPipe is the Windows host's "\pipe\KestTCS", served by the Microsoft RPC runtime, which
// names the calling process as the Unix socket's credentials do.
enum class Transport : uint8_t { kUnixStream, kTcp, kNamedPipe };

// Who is on the other end of a connection.
struct PeerIdentity {
  uint64_t connection_id = 0;  // unique for the server's lifetime, never 0
  Transport transport = Transport::kUnixStream;
  // Peer credentials taken when the connection was accepted (Unix socket and named pipe only).
  bool has_credentials = false;
  ProcessId pid = 0;
  // The user at the other end: from the peer credentials, or over TCP the owner of the client's
  // socket.
  UserId uid = 0;
  GroupId gid = 0;
  // The association group the connection's bind joined; 0 before a bind.
  uint32_t assoc_group_id = 0;
};

// Everything a handler learns about a call besides its stub data.
struct CallInfo {
  PeerIdentity peer;
  uint32_t call_id = 0;
  uint16_t context_id = 0;
  std::optional<Uuid> object;
  // Byte order of the request stub data (the response is always little-endian).
  ByteOrder byte_order = ByteOrder::kLittle;
};

// Serves one interface. Reads `stub_in` (NDR 2.0 in info.byte_order) and appends the response
// stub to `stub_out` (which starts empty; NdrWriter aligns relative to its start). Returns 0 for
// success or the fault status to send instead of the response: kNcaOpRangeError for an opnum the
// interface does not have, kRpcBadStubData for stub data that does not unmarshal. Runs on a
// worker thread, possibly alongside other calls of the same interface.
using InterfaceHandler =
    std::function<uint32_t(const CallInfo& info, uint16_t opnum, std::span<const uint8_t> stub_in,
                           std::vector<uint8_t>& stub_out)>;

// Registered interfaces by syntax (UUID and major.minor version). Read-only while serving.
using InterfaceRegistry = std::map<SyntaxId, InterfaceHandler>;

// A complete request ready for its handler.
struct PendingCall {
  CallInfo info;
  uint16_t opnum = 0;
  std::vector<uint8_t> stub;
  const InterfaceHandler* handler = nullptr;  // points into the registry
  // The stub's bytes in the request budget, given back when the call is dropped.
  BudgetCharge charge;
};

class Association {
 public:
  enum class Step {
    kNeedMore,  // no whole fragment left; feed more bytes
    kCall,      // `call` holds a request to dispatch; complete it before asking for more
    kClose,     // protocol error: send what is queued, then close the connection
  };

  // `registry`, `groups` and `budget` must outlive the association. `secondary_address` goes into
  // bind_ack (the TCP port or socket path).
  Association(const InterfaceRegistry& registry, PeerIdentity peer, std::string secondary_address,
              AssociationGroups& groups, RequestBudget& budget);
  ~Association();  // leaves the association group
  Association(const Association&) = delete;
  Association& operator=(const Association&) = delete;

  // The peer, with the association group once bound.
  const PeerIdentity& peer() const { return peer_; }

  // Appends bytes read from the connection.
  void Feed(std::span<const uint8_t> bytes) {
    input_.insert(input_.end(), bytes.begin(), bytes.end());
  }

  // Consumes whole fragments, appending any PDUs to send (bind_ack, faults, ...) to `output`,
  // until a call is complete (kCall, `call` filled in), the input runs out (kNeedMore) or the
  // connection must close (kClose; every later Next also returns kClose).
  Step Next(std::vector<uint8_t>& output, PendingCall& call);

  // Appends the response (fragmented to the negotiated transmit size) or, when status != 0, a
  // fault for a call Next returned.
  void Complete(const PendingCall& call, uint32_t status, std::span<const uint8_t> stub_out,
                std::vector<uint8_t>& output) const;

  // Bytes fed but not yet consumed.
  size_t buffered() const { return input_.size() - input_pos_; }
  // Whether a request has begun whose last fragment has not arrived.
  bool mid_request() const { return assembly_.has_value(); }

 private:
  // A request whose fragments are still arriving.
  struct Assembly {
    PendingCall call;
    // Non-zero: answer with this fault once the last fragment arrives. No default member
    // initialiser, so that std::optional<Assembly> sees a default constructor inside the class;
    // emplace() value-initialises it to 0.
    uint32_t fault;
  };

  Step HandleBind(const PduHeader& header, std::span<const uint8_t> fragment,
                  std::vector<uint8_t>& output);
  Step HandleRequest(const PduHeader& header, std::span<const uint8_t> fragment,
                     std::vector<uint8_t>& output, PendingCall& call);
  // Answers every context of a bind or alter_context; accepted ones are added to contexts_.
  std::vector<ContextResult> AnswerContexts(const BindPdu& bind);
  // Makes room in `call`'s stub for `size` bytes (more when further fragments follow), charging
  // the budget for what it allocates. False, nothing changed, when the budget has no room.
  bool Reserve(PendingCall& call, size_t size, bool more_to_come);
  // Queues fault `status` for `call`, a call that did not execute.
  static void QueueFault(const PendingCall& call, uint32_t status, std::vector<uint8_t>& output);

  const InterfaceRegistry& registry_;
  PeerIdentity peer_;
  std::string secondary_address_;
  AssociationGroups& groups_;
  RequestBudget& budget_;
  std::vector<uint8_t> input_;
  size_t input_pos_ = 0;
  bool closed_ = false;
  bool bound_ = false;
  uint16_t max_xmit_ = kMaxFragmentSize;
  uint16_t max_recv_ = kMaxFragmentSize;
  // Accepted presentation contexts by id, with the handler of their interface (in the registry).
  std::map<uint16_t, const InterfaceHandler*> contexts_;
  std::optional<Assembly> assembly_;
  // The last call the client orphaned; its remaining fragments are dropped.
  std::optional<uint32_t> orphaned_call_;
};

}  // namespace kesttcs::dcerpc
