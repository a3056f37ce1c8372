// A file descriptor with an owner.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_OWNED_DESCRIPTOR_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_OWNED_DESCRIPTOR_H_

namespace orvane {

// A file descriptor that is closed with its owner. -1 stands for none.
class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int descriptor) : descriptor_(descriptor) {}
  OwnedDescriptor(OwnedDescriptor&& other) noexcept
      : descriptor_(other.Release()) {}
  OwnedDescriptor& operator=(OwnedDescriptor&&) = delete;
  ~OwnedDescriptor();

  int get() const { return descriptor_; }

  // Gives the descriptor to the caller, who closes it from now on.
  int Release();

 private:
  int descriptor_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_OWNED_DESCRIPTOR_H_
