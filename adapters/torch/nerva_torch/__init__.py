"""PyTorch on nerva: `import nerva_torch` makes torch.device("privateuseone") run on the
OpenCL device that nerva opens."""

import os
import types

import torch

_HERE = os.path.dirname(os.path.abspath(__file__))
_LIBRARY = os.environ.get("NERVA_TORCH_LIBRARY", os.path.join(_HERE, "_nerva_torch.so"))
torch.ops.load_library(_LIBRARY)

_ops = torch.ops.nerva


def device_count():
    """Number of nerva devices (one)."""
    return int(_ops.device_count())


def is_available():
    return True


def current_device():
    return 0


def synchronize(device=None):
    """Waits until every queued nerva command has finished."""
    _ops.synchronize()


def manual_seed(seed):
    """Seeds the device generator (Philox) that dropout and the random fills draw from."""
    _ops.manual_seed(int(seed))


def manual_seed_all(seed):
    manual_seed(seed)


def fallback_ops():
    """Operators that ran on the CPU fallback since the last reset."""
    return list(_ops.fallback_ops())


def reset_fallback_ops():
    _ops.reset_fallback_ops()


_module = types.ModuleType("torch.privateuseone")
for _name in ("device_count", "is_available", "current_device", "synchronize", "manual_seed",
              "manual_seed_all", "fallback_ops", "reset_fallback_ops"):
    setattr(_module, _name, globals()[_name])
torch._register_device_module("privateuseone", _module)

# torch.manual_seed seeds the nerva generator as well, as it seeds CUDA's.
_torch_manual_seed = torch.manual_seed


def _manual_seed(seed):
    generator = _torch_manual_seed(seed)
    manual_seed(seed)
    return generator


torch.manual_seed = _manual_seed
torch.random.manual_seed = _manual_seed

DEVICE = torch.device("privateuseone", 0)

# Printing formats a host copy: the formatter's own steps would run in float64, which the
# device does not offer.
_torch_str = torch._tensor_str._str


def _str(self, *, tensor_contents=None):
    if self.device.type != "privateuseone":
        return _torch_str(self, tensor_contents=tensor_contents)
    with torch.no_grad():
        text = _torch_str(self.detach().cpu(), tensor_contents=tensor_contents)
    suffix = ", device='%s'" % self.device
    if self.grad_fn is not None:
        suffix += ", grad_fn=<%s>" % type(self.grad_fn).__name__
    elif self.requires_grad:
        suffix += ", requires_grad=True"
    return text[:-1] + suffix + ")"


torch._tensor_str._str = _str
