#include "rpc/dcerpc/association.h"

#include <algorithm>

namespace kesttcs::dcerpc {

namespace {

// A request of several fragments grows its buffer from this size on: buffers this large come from
// mappings of their own (the service sets the allocator's threshold there), which go back to the
// system when freed, where growing through smaller sizes would leave the heap full of holes.
constexpr size_t kMultiFragmentStubStep = 64 * 1024;

// Input kept between reads: about two fragments. A read of many fragments at once grows the buffer
// for a moment; it shrinks back once they are consumed, so idle connections hold little.
constexpr size_t kKeptInputCapacity = 2 * kMaxFragmentSize;

uint16_t ClampFragment(uint16_t proposed) {
  return std::clamp(proposed, kMinFragmentSize, kMaxFragmentSize);
}

}  // namespace

Association::Association(const InterfaceRegistry& registry, PeerIdentity peer,
                         std::string secondary_address, AssociationGroups& groups,
                         RequestBudget& budget)
    : registry_(registry),
      peer_(peer),
      secondary_address_(std::move(secondary_address)),
      groups_(groups),
      budget_(budget) {
  peer_.assoc_group_id = 0;
}

Association::~Association() {
  if (peer_.assoc_group_id != 0) groups_.Leave(peer_.assoc_group_id);
}

Association::Step Association::Next(std::vector<uint8_t>& output, PendingCall& call) {
  while (!closed_) {
    std::span<const uint8_t> pending(input_.data() + input_pos_, input_.size() - input_pos_);
    if (pending.size() < kHeaderSize) break;
    std::optional<PduHeader> header = ParseHeader(pending);
    if (!header || header->frag_length > max_recv_) {
      closed_ = true;
      break;
    }
    if (pending.size() < header->frag_length) break;
    std::span<const uint8_t> fragment = pending.first(header->frag_length);
    input_pos_ += header->frag_length;

    Step step = Step::kNeedMore;
    switch (header->type) {
      case PduType::kBind:
      case PduType::kAlterContext:
        step = HandleBind(*header, fragment, output);
        break;
      case PduType::kRequest:
        step = HandleRequest(*header, fragment, output, call);
        break;
      case PduType::kOrphaned:
        if (assembly_ && assembly_->call.info.call_id == header->call_id) assembly_.reset();
        orphaned_call_ = header->call_id;
        break;
      case PduType::kCoCancel:
      case PduType::kAuth3:
      case PduType::kShutdown:
        break;
      default:
        step = Step::kClose;
        break;
    }
    if (step == Step::kClose) closed_ = true;
    if (step == Step::kCall) return step;
  }
  if (closed_) return Step::kClose;
  // Drop consumed bytes once they dominate the buffer, so it stays about one fragment long.
  if (input_pos_ > 0 && input_pos_ * 2 >= input_.size()) {
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(input_pos_));
    input_pos_ = 0;
    if (input_.capacity() > kKeptInputCapacity && input_.size() <= kKeptInputCapacity) {
      input_.shrink_to_fit();
    }
  }
  return Step::kNeedMore;
}

std::vector<ContextResult> Association::AnswerContexts(const BindPdu& bind) {
  std::vector<ContextResult> results;
  bool negotiated = false;
  for (const PresentationContext& context : bind.contexts) {
    ContextResult result;
    uint8_t features = 0;
    if (!negotiated && context.transfer_syntaxes.size() == 1 &&
        IsFeatureNegotiation(context.transfer_syntaxes[0], features)) {
      negotiated = true;
      result.result = kResultNegotiateAck;
      result.reason = features & kFeatureKeepConnectionOnOrphan;
      results.push_back(result);
      continue;
    }
    auto iface = registry_.find(context.abstract_syntax);
    if (iface == registry_.end()) {
      result.result = kResultProviderRejection;
      result.reason = kReasonAbstractSyntaxNotSupported;
    } else if (std::find(context.transfer_syntaxes.begin(), context.transfer_syntaxes.end(),
                         NdrSyntax()) == context.transfer_syntaxes.end()) {
      result.result = kResultProviderRejection;
      result.reason = kReasonTransferSyntaxesNotSupported;
    } else {
      result.transfer_syntax = NdrSyntax();
      contexts_[context.id] = &iface->second;
    }
    results.push_back(result);
  }
  return results;
}

Association::Step Association::HandleBind(const PduHeader& header,
                                          std::span<const uint8_t> fragment,
                                          std::vector<uint8_t>& output) {
  std::optional<BindPdu> bind = ParseBind(header, fragment);
  if (!bind) return Step::kClose;
  if (header.type == PduType::kAlterContext) {
    if (!bound_) return Step::kClose;
    BindAckPdu ack{max_xmit_, max_recv_, peer_.assoc_group_id, "", AnswerContexts(*bind)};
    std::vector<uint8_t> pdu = EncodeBindAck(PduType::kAlterContextResp, header.call_id, ack);
    output.insert(output.end(), pdu.begin(), pdu.end());
    return Step::kNeedMore;
  }
  std::vector<uint8_t> pdu;
  if (bound_) {
    pdu = EncodeBindNak(header.call_id, kNakReasonNotSpecified);
  } else if (header.auth_length != 0) {
    pdu = EncodeBindNak(header.call_id, kNakAuthenticationTypeNotRecognized);
  } else {
    std::vector<ContextResult> results = AnswerContexts(*bind);
    if (contexts_.empty()) {
      pdu = EncodeBindNak(header.call_id, kNakReasonNotSpecified);
    } else {
      bound_ = true;
      // The client's transmit size is our receive size and the other way round.
      max_xmit_ = ClampFragment(bind->max_recv_frag);
      max_recv_ = ClampFragment(bind->max_xmit_frag);
      peer_.assoc_group_id = groups_.Join(bind->assoc_group_id, peer_.uid);
      BindAckPdu ack{max_xmit_, max_recv_, peer_.assoc_group_id, secondary_address_,
                     std::move(results)};
      pdu = EncodeBindAck(PduType::kBindAck, header.call_id, ack);
    }
  }
  output.insert(output.end(), pdu.begin(), pdu.end());
  return Step::kNeedMore;
}

Association::Step Association::HandleRequest(const PduHeader& header,
                                             std::span<const uint8_t> fragment,
                                             std::vector<uint8_t>& output, PendingCall& call) {
  std::optional<RequestPdu> request = ParseRequest(header, fragment);
  if (!request || header.auth_length != 0) return Step::kClose;
  if (header.flags & kPfcFirstFrag) {
    if (assembly_) return Step::kClose;  // a new call before the last one was complete
    assembly_.emplace();
    PendingCall& pending = assembly_->call;
    pending.info.peer = peer_;
    pending.info.call_id = header.call_id;
    pending.info.context_id = request->context_id;
    pending.info.object = request->object;
    pending.info.byte_order = header.byte_order();
    pending.opnum = request->opnum;
    pending.charge = BudgetCharge(&budget_);
    auto context = contexts_.find(request->context_id);
    if (!bound_) {
      assembly_->fault = kNcaProtocolError;
    } else if (context == contexts_.end()) {
      assembly_->fault = kNcaUnknownInterface;
    } else {
      pending.handler = context->second;
    }
  } else if (!assembly_ || assembly_->call.info.call_id != header.call_id) {
    // Fragments of an orphaned call may still be in flight; anything else breaks the protocol.
    return orphaned_call_ == header.call_id ? Step::kNeedMore : Step::kClose;
  }

  Assembly& assembly = *assembly_;
  if (assembly.fault == 0) {
    std::vector<uint8_t>& stub = assembly.call.stub;
    if (request->stub.size() > kMaxRequestStub - stub.size()) {
      assembly.fault = kNcaFaultRemoteNoMemory;
      stub = {};
      assembly.call.charge.Reset();
    } else if (!Reserve(assembly.call, stub.size() + request->stub.size(),
                        !(header.flags & kPfcLastFrag))) {
      // The server holds all the request bytes it may: the newest request gives way.
      QueueFault(assembly.call, kNcaFaultRemoteNoMemory, output);
      assembly_.reset();
      return Step::kClose;
    } else {
      stub.insert(stub.end(), request->stub.begin(), request->stub.end());
    }
  }
  if (!(header.flags & kPfcLastFrag)) return Step::kNeedMore;

  if (assembly.fault != 0) {
    QueueFault(assembly.call, assembly.fault, output);
    assembly_.reset();
    return Step::kNeedMore;
  }
  call = std::move(assembly.call);
  assembly_.reset();
  return Step::kCall;
}

bool Association::Reserve(PendingCall& call, size_t size, bool more_to_come) {
  std::vector<uint8_t>& stub = call.stub;
  if (size <= stub.capacity()) return true;
  // Grow by doubling, as the vector would, but charge what is allocated before allocating it.
  const size_t step = more_to_come ? kMultiFragmentStubStep : 0;
  const size_t capacity = std::min(std::max({size, 2 * stub.capacity(), step}), kMaxRequestStub);
  if (!call.charge.Add(capacity - stub.capacity())) return false;
  stub.reserve(capacity);
  return true;
}

void Association::QueueFault(const PendingCall& call, uint32_t status,
                             std::vector<uint8_t>& output) {
  std::vector<uint8_t> pdu = EncodeFault(call.info.call_id, call.info.context_id, status, true);
  output.insert(output.end(), pdu.begin(), pdu.end());
}

void Association::Complete(const PendingCall& call, uint32_t status,
                           std::span<const uint8_t> stub_out, std::vector<uint8_t>& output) const {
  if (status != 0) {
    // A call the handler refused before touching anything (unknown opnum, undecodable stub) did
    // not execute.
    bool did_not_execute = status == kNcaOpRangeError || status == kRpcBadStubData;
    std::vector<uint8_t> pdu =
        EncodeFault(call.info.call_id, call.info.context_id, status, did_not_execute);
    output.insert(output.end(), pdu.begin(), pdu.end());
    return;
  }
  EncodeResponseFragments(call.info.call_id, call.info.context_id, stub_out, max_xmit_, output);
}

}  // namespace kesttcs::dcerpc
