#pragma once

#include <VornSdkRpc/Mutex.h>
#include <VornSdkRpc/RequestHandler.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <cstddef>
#include <memory>
#include <unordered_map>

namespace VornSdkRpc {

// The tag registry of one GrpcServer: it makes the tags that services hand to gRPC, knows for each
// the service that asked for it and the handler that serves it, and forgets them. It holds one
// reference to a handler for each tag of it.
//
// Any thread may call any operation; one lock serialises them. A handler whose last reference goes
// with a storeHandler, removeHandler or clear is destroyed under that lock, so its destructor must
// not call back here.
class VORN_EXPORT TagManager {
 public:
  TagManager() = default;

  // Releases the handlers, with a registry that knows no tag any more: their destructors may still
  // call it.
  ~TagManager();

  // Makes a tag of the service, without a handler. Its value is unique among the live tags; it may
  // come back once the tag is removed.
  OpaqueId newTag(std::size_t serviceId);

  // Stores the handler of a tag, in place of one stored before. Asserts that the tag exists and
  // belongs to the service.
  void storeHandler(std::size_t serviceId, OpaqueId tag, RequestHandlerPtr handler);

  // Fills in the service and the handler (empty when none has been stored) and returns true when
  // the tag is known; otherwise returns false and touches neither. Allocates nothing.
  bool find(OpaqueId tag, std::size_t& serviceId, RequestHandlerPtr& handler) const;

  // Forgets a tag and its reference to the handler. An unknown tag is ignored; a known one is
  // asserted to belong to the service.
  void removeHandler(std::size_t serviceId, OpaqueId tag);

  // Forgets every tag. For the owner of a server that is being dismantled; the library never calls
  // it.
  void clear();

  // How many tags are live: those of the calls in flight, and one for each call that is asked for.
  std::size_t size() const;

 private:
  struct Tag {
    std::size_t serviceId;
    RequestHandlerPtr handler;
  };

  std::unordered_map<OpaqueId, std::unique_ptr<Tag>> tags_ VORN_GUARDED_BY(mutex_);
  mutable Mutex mutex_;
};

}  // namespace VornSdkRpc
