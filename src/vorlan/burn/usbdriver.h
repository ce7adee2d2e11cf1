// Tells whether the USB road can be used at all. The USB burn page asks each time it comes to the
// front.
#pragma once

// Whether libusbK can be bound and lists devices, and the chip's devices are open to this user. If
// not, the trace says which of these failed. Any thread, also while burning.
bool usbDriverWorks();
