"""PyTorch on nerva: training and operators on the device against torch's CPU results.

Exits 77 (skipped) when torch or the built backend cannot be imported."""

import copy
import os
import sys
import unittest
import warnings

try:
    import torch
    import nerva_torch
except Exception as error:  # torch absent, or the backend not built
    print("skipped: %s" % error)
    sys.exit(77)

DEV = torch.device("privateuseone", 0)
warnings.filterwarnings("ignore", message="nerva_torch")


def close(test, got, want, rtol=1e-4, atol=1e-5):
    if isinstance(want, tuple):
        for g, w in zip(got, want):
            close(test, g, w, rtol, atol)
        return
    got = got.cpu() if got.device.type != "cpu" else got
    test.assertEqual(got.shape, want.shape)
    test.assertEqual(got.dtype, want.dtype)
    if want.dtype == torch.bool or not want.is_floating_point():
        test.assertTrue(torch.equal(got, want), "%s != %s" % (got, want))
    else:
        torch.testing.assert_close(got, want, rtol=rtol, atol=atol, equal_nan=True)


class Training(unittest.TestCase):
    """20 steps from the same weights on the device and on the CPU."""

    def run_model(self, make_model, make_opt, loss_fn, x, y):
        torch.manual_seed(1)
        cpu = make_model()
        dev = copy.deepcopy(cpu).to(DEV)
        opt_cpu, opt_dev = make_opt(cpu.parameters()), make_opt(dev.parameters())
        xd, yd = x.to(DEV), y.to(DEV)
        nerva_torch.reset_fallback_ops()
        for _ in range(20):
            losses = []
            for model, opt, xx, yy in ((cpu, opt_cpu, x, y), (dev, opt_dev, xd, yd)):
                opt.zero_grad()
                loss = loss_fn(model(xx), yy)
                loss.backward()
                opt.step()
                losses.append(loss.item())
            self.assertLess(abs(losses[0] - losses[1]), 1e-4 * max(1.0, abs(losses[0])))
        for a, b in zip(cpu.state_dict().values(), dev.state_dict().values()):
            scale = max(a.abs().max().item(), 1e-6) if a.numel() else 1.0
            self.assertLess((a - b.cpu()).abs().max().item() / scale if a.numel() else 0, 1e-4)
        self.assertEqual(nerva_torch.fallback_ops(), [], "CPU fallbacks")

    def mlp(self):
        return torch.nn.Sequential(torch.nn.Linear(20, 48), torch.nn.ReLU(),
                                   torch.nn.Linear(48, 10))

    def data(self):
        torch.manual_seed(2)
        return torch.randn(33, 20), torch.randint(0, 10, (33,))

    def test_mlp_sgd(self):
        x, y = self.data()
        self.run_model(self.mlp, lambda p: torch.optim.SGD(p, lr=0.1, momentum=0.9),
                       torch.nn.functional.cross_entropy, x, y)

    def test_mlp_adam(self):
        x, y = self.data()
        self.run_model(self.mlp, lambda p: torch.optim.Adam(p, lr=1e-2),
                       torch.nn.functional.cross_entropy, x, y)

    def test_mlp_foreach(self):
        x, y = self.data()
        self.run_model(self.mlp, lambda p: torch.optim.Adam(p, lr=1e-2, foreach=True),
                       torch.nn.functional.cross_entropy, x, y)
        self.run_model(self.mlp, lambda p: torch.optim.SGD(p, lr=0.1, momentum=0.9,
                                                           weight_decay=1e-3, foreach=True),
                       torch.nn.functional.cross_entropy, x, y)

    def test_normalised_mlp_mse(self):
        def model():
            return torch.nn.Sequential(
                # No bias before batch norm: its gradient is rounding noise that Adam
                # would amplify differently on either side.
                torch.nn.Linear(20, 32, bias=False), torch.nn.BatchNorm1d(32), torch.nn.Tanh(),
                torch.nn.Linear(32, 32), torch.nn.LayerNorm(32), torch.nn.GELU(),
                torch.nn.Linear(32, 4))
        x, _ = self.data()
        y = torch.randn(33, 4)
        self.run_model(model, lambda p: torch.optim.AdamW(p, lr=1e-2),
                       torch.nn.functional.mse_loss, x, y)

    def test_cnn_sgd(self):
        def model():
            return torch.nn.Sequential(
                torch.nn.Conv2d(2, 6, 3, padding=1, bias=False), torch.nn.BatchNorm2d(6),
                torch.nn.ReLU(), torch.nn.MaxPool2d(2), torch.nn.Flatten(),
                torch.nn.Linear(6 * 4 * 4, 5))
        torch.manual_seed(4)
        x, y = torch.randn(8, 2, 8, 8), torch.randint(0, 5, (8,))
        self.run_model(model, lambda p: torch.optim.SGD(p, lr=0.05, momentum=0.9),
                       torch.nn.functional.cross_entropy, x, y)

    def test_transformer_block_sgd(self):
        # SGD: the key bias has an exactly zero gradient, whose rounding noise Adam would
        # scale up differently on either side.
        def model():
            return torch.nn.TransformerEncoderLayer(16, 2, 32, dropout=0.0, batch_first=True,
                                                    activation="gelu")
        torch.manual_seed(5)
        x, y = torch.randn(3, 5, 16), torch.randn(3, 5, 16)
        self.run_model(model, lambda p: torch.optim.SGD(p, lr=0.1),
                       torch.nn.functional.mse_loss, x, y)


class Operators(unittest.TestCase):
    """Each native operator against CPU torch, with strided, broadcast and empty inputs."""

    def setUp(self):
        torch.manual_seed(3)

    def check(self, fn, *inputs, rtol=1e-4, atol=1e-5):
        got = fn(*[t.to(DEV) if isinstance(t, torch.Tensor) else t for t in inputs])
        want = fn(*[t.clone() if isinstance(t, torch.Tensor) else t for t in inputs])
        close(self, got, want, rtol, atol)

    def test_binary(self):
        a = torch.randn(5, 7)
        b = torch.randn(7)
        t = torch.randn(7, 5).t()  # non-contiguous
        for fn in (torch.add, torch.sub, torch.mul, torch.maximum, torch.minimum, torch.eq,
                   torch.lt, torch.ge):
            self.check(fn, a, b)
            self.check(fn, t, a)
        self.check(lambda x, y: torch.div(x, y.abs() + 0.5), a, t)
        self.check(lambda x: x * 2.5 + 1 - x / 3, t)
        self.check(lambda x, y: torch.add(x, y, alpha=-0.5), a, b)
        self.check(torch.add, torch.randn(0, 3), torch.randn(3))
        self.check(lambda x, y: x + y, torch.randint(-5, 5, (9,)), torch.randint(-5, 5, (9,)))
        self.check(lambda x: x.pow(2), a)

    def test_cat_and_stack(self):
        a, b, c = torch.randn(3, 4), torch.randn(3, 1), torch.randn(3, 7)
        t = torch.randn(5, 3).t()  # non-contiguous
        nerva_torch.reset_fallback_ops()
        self.check(lambda x, y, z: torch.cat([x, y, z], 1), a, b, c)  # mixed sizes
        self.check(lambda x, y, z: torch.cat([x, y, z, x], -1), a, b, c)  # negative dim
        self.check(lambda x, y: torch.cat([x, y, x], 1), t, a)
        self.check(lambda x, y: torch.cat([x.t(), y.t()], 0), t, a)
        self.check(lambda x, y: torch.cat([x, y[:, :0], x], 1), a, c)  # empty along dim
        self.check(lambda x, y: torch.cat([x, y[:0, 0], x], 0), a, c)  # legacy 1-D empty
        self.check(lambda x: torch.cat([x[:0], x[:0]], 0), a)  # empty result
        self.check(lambda x: torch.cat([x[1:], x[:1]]), torch.randn(7))  # odd offsets
        self.check(lambda x, y: torch.cat([x, y], 0), a.half(), t[:, :4].half())
        self.check(lambda x, y: torch.cat([x, y], 1), a, torch.randint(-5, 5, (3, 2)))
        self.check(lambda x, y: torch.cat([x, y], 1), torch.randint(-5, 5, (3, 2)),
                   torch.rand(3, 5) > 0.5)
        out = torch.empty(2, 2, device=DEV)
        torch.cat([a.to(DEV), c.to(DEV)], 1, out=out)
        close(self, out, torch.cat([a, c], 1))
        for d in (0, 1, 2, -1, -3):
            self.check(lambda x, y: torch.stack([x, y[:, 1:], x], d), a, t)
        self.check(lambda x, y: torch.stack([x, y], 1), a[:, :0], t[:, :0])  # empty inputs
        self.check(lambda x, y: torch.stack([x, y]), torch.tensor(1.5), torch.tensor(-2.0))
        out = torch.empty(0, device=DEV)
        torch.stack([a.to(DEV), t.to(DEV)[:, 1:]], -1, out=out)
        close(self, out, torch.stack([a, t[:, 1:]], -1))
        self.assertEqual(nerva_torch.fallback_ops(), [])
        with self.assertRaisesRegex(RuntimeError, "sizes of tensors must match"):
            torch.cat([a.to(DEV), c.to(DEV)], 0)
        with self.assertRaisesRegex(RuntimeError, "equal size"):
            torch.stack([a.to(DEV), c.to(DEV)])

    def test_cat_stack_gradients(self):
        a, b = torch.randn(3, 4, requires_grad=True), torch.randn(3, 2, requires_grad=True)
        w = torch.randn(2, 3, 6)
        grads = []
        for dev in ("cpu", DEV):
            x, y = a.detach().to(dev).requires_grad_(), b.detach().to(dev).requires_grad_()
            joined = torch.stack([torch.cat([x, y], 1), torch.cat([y, x], -1)])
            (joined * w.to(dev)).sum().backward()
            grads.append((x.grad, y.grad))
        close(self, grads[1], grads[0])

    def test_inplace_and_out(self):
        a, b = torch.randn(6, 3), torch.randn(3)
        self.check(lambda x, y: x.add_(y, alpha=2), a.clone(), b)
        self.check(lambda x, y: x[:, 1:].mul_(y[1:]), a.clone(), b)
        self.check(lambda x, y: torch.mul(x, y, out=torch.empty(0, device=x.device)), a, b)
        self.check(lambda x, y: x.addcmul_(y, y, value=0.3), a.clone(), b)
        self.check(lambda x, y: x.addcdiv_(y, y.abs() + 1, value=-0.3), a.clone(), b)

    def test_unary(self):
        a = torch.randn(4, 9)
        pos = a.abs() + 0.1
        for fn in (torch.neg, torch.exp, torch.tanh, torch.abs, torch.sigmoid, torch.relu,
                   torch.nn.functional.gelu, torch.nn.functional.silu, torch.floor):
            self.check(fn, a)
            self.check(fn, a.t())
        for fn in (torch.log, torch.sqrt, torch.rsqrt, torch.reciprocal):
            self.check(fn, pos)
        self.check(torch.exp, torch.randn(0))

    def test_matmul(self):
        a, b, c = torch.randn(7, 5), torch.randn(5, 3), torch.randn(3)
        self.check(torch.mm, a, b)
        self.check(torch.mm, torch.randn(5, 7).t(), torch.randn(3, 5).t())
        self.check(lambda x, y, z: torch.addmm(z, x, y, beta=0.5, alpha=2.0), a, b, c)
        self.check(torch.bmm, torch.randn(2, 7, 5), torch.randn(2, 5, 3))
        self.check(lambda x, y: x @ y, torch.randn(2, 4, 5), torch.randn(5, 6))
        self.check(torch.mm, torch.randn(3, 0), torch.randn(0, 4))

    def test_reductions(self):
        a = torch.randn(3, 4, 5)
        self.check(torch.sum, a)
        self.check(lambda x: x.sum(1), a)
        self.check(lambda x: x.sum((0, 2), keepdim=True), a)
        self.check(lambda x: x.mean((1, 2)), a)
        self.check(lambda x: x.transpose(0, 2).mean(0), a)
        self.check(lambda x: x.sum(0), torch.randint(0, 9, (4, 3)))
        self.check(torch.sum, torch.randn(0, 3))

    def test_variance(self):
        a = torch.randn(4, 6, 5) * 3 + 1
        nerva_torch.reset_fallback_ops()
        self.check(torch.var, a)
        self.check(lambda x: x.var(1), a)
        self.check(lambda x: x.var((1, 2), unbiased=False, keepdim=True), a)
        self.check(lambda x: x.var((0, 2)), a)  # not one run of axes: composed
        self.check(lambda x: x.transpose(0, 2).var(0), a)
        self.check(lambda x: torch.var_mean(x, 2), a)
        self.check(lambda x: x.std(1), a)
        self.check(lambda x: x.var(1), torch.randn(3, 1))  # N - correction = 0: nan
        self.assertEqual(nerva_torch.fallback_ops(), [])

    def test_softmax_and_losses(self):
        a = torch.randn(6, 11)
        self.check(lambda x: torch.softmax(x, 1), a)
        self.check(lambda x: torch.log_softmax(x, 0), a)
        self.check(lambda x: torch.log_softmax(x.t(), 1), a)
        target = torch.randint(0, 11, (6,))
        self.check(torch.nn.functional.cross_entropy, a, target)
        self.check(lambda x, t: torch.nn.functional.nll_loss(x, t, reduction="sum"), a, target)
        self.check(torch.nn.functional.mse_loss, a, torch.randn(6, 11))

    def test_gradients(self):
        def grads(device, fn, x):
            x = x.detach().clone().to(device).requires_grad_()
            fn(x).sum().backward()
            return x.grad.cpu()
        a = torch.randn(5, 8)
        for fn in (torch.relu, torch.sigmoid, torch.tanh, torch.nn.functional.gelu,
                   torch.nn.functional.silu, lambda x: torch.softmax(x, 1) * torch.arange(8.0),
                   lambda x: torch.log_softmax(x, 1) * torch.arange(8.0),
                   lambda x: torch.nn.functional.layer_norm(x, (8,)) * torch.arange(8.0),
                   lambda x: torch.nn.functional.gelu(x, approximate="tanh")):
            torch.testing.assert_close(grads(DEV, fn, a), grads("cpu", fn, a), rtol=1e-4,
                                       atol=1e-5)

    def test_selection(self):
        a, b = torch.randn(4, 5), torch.randn(5)
        cond = torch.randn(4, 5) > 0
        self.check(torch.where, cond, a, b)
        self.check(lambda x, m: x.masked_fill(m, -2.0), a, cond)

    def test_scans_sorting_search(self):
        a = torch.randn(4, 9)
        self.check(lambda x: torch.cumsum(x, 1), a)
        self.check(lambda x: torch.cumsum(x, 0), a.t())
        self.check(lambda x: torch.argmax(x, 1), a)
        self.check(torch.argmax, a)
        self.check(lambda x: torch.max(x, 0), a)
        self.check(lambda x: torch.min(x, 1, keepdim=True), a)
        self.check(torch.max, a)
        self.check(lambda x: torch.amax(x, (0, 1)), a)
        self.check(lambda x: torch.sort(x, 1, descending=True), a)
        self.check(lambda x: torch.sort(x, 0), torch.randn(37, 3))
        self.check(lambda x: torch.topk(x, 3, 1), a)
        close(self, torch.arange(2, 17, 3, device=DEV), torch.arange(2, 17, 3))
        close(self, torch.arange(5.0, -1.0, -0.5, device=DEV), torch.arange(5.0, -1.0, -0.5))
        close(self, torch.linspace(-1, 2, 7, device=DEV), torch.linspace(-1, 2, 7))

    def test_foreach(self):
        def lists(*shapes):
            return [torch.randn(shape) for shape in shapes]
        shapes = [(5,), (3, 2), (0,), (17,)]
        a, b, c = lists(*shapes), lists(*shapes), [t.abs() + 0.5 for t in lists(*shapes)]
        cases = [
            lambda x, y, z: torch._foreach_add_(x, y, alpha=-0.1),
            lambda x, y, z: torch._foreach_mul_(x, y),
            lambda x, y, z: torch._foreach_div_(x, z),
            lambda x, y, z: torch._foreach_maximum_(x, y),
            lambda x, y, z: torch._foreach_mul_(x, 0.9),
            lambda x, y, z: torch._foreach_div_(x, [2.0, 3.0, 4.0, 5.0]),
            lambda x, y, z: torch._foreach_addcmul_(x, y, y, 0.3),
            lambda x, y, z: torch._foreach_addcdiv_(x, y, z, [0.1, -0.2, 0.3, 0.4]),
            lambda x, y, z: torch._foreach_neg_(x),
            lambda x, y, z: torch._foreach_sqrt_(z),
            lambda x, y, z: list(torch._foreach_add(z, 1e-3)) + list(torch._foreach_sub(x, y)),
            lambda x, y, z: list(torch._foreach_sqrt(z)) + list(torch._foreach_addcdiv(x, y, z)),
        ]
        non_contiguous = [torch.randn(5, 2)[:, 0], torch.randn(2, 3).t(), torch.randn(0),
                          torch.randn(17)]
        for n, fn in enumerate(cases):
            for first in (a, non_contiguous) if n % 3 == 0 else (a,):
                nerva_torch.reset_fallback_ops()
                dev = [[t.to(DEV) for t in l] for l in (first, b, c)]
                host = [[t.clone() for t in l] for l in (first, b, c)]
                got, want = fn(*dev), fn(*host)
                for g, w in zip(got or dev[0] + dev[2], want or host[0] + host[2]):
                    close(self, g, w)
                self.assertEqual(nerva_torch.fallback_ops(), [])

    def test_dropout_and_random(self):
        x = torch.ones(4000, device=DEV)
        torch.manual_seed(7)
        y = torch.nn.functional.dropout(x, 0.25, training=True)
        torch.manual_seed(7)
        z = torch.nn.functional.dropout(x, 0.25, training=True)
        self.assertTrue(torch.equal(y.cpu(), z.cpu()))
        kept = (y.cpu() != 0).float().mean().item()
        self.assertAlmostEqual(kept, 0.75, delta=0.05)
        self.assertTrue(torch.allclose(y.cpu()[y.cpu() != 0], torch.tensor(1 / 0.75)))
        u = torch.empty(3000, device=DEV).uniform_(-2, 3).cpu()
        self.assertTrue(u.min().item() >= -2 and u.max().item() < 3)
        self.assertAlmostEqual(u.mean().item(), 0.5, delta=0.1)
        nerva_torch.reset_fallback_ops()
        b = torch.empty(4000, device=DEV).bernoulli_(0.3).cpu()
        self.assertTrue(((b == 0) | (b == 1)).all())
        self.assertAlmostEqual(b.mean().item(), 0.3, delta=0.05)
        p = torch.tensor([0.0, 1.0, 0.5]).repeat(1000)
        d = torch.bernoulli(p.to(DEV)).cpu()
        self.assertTrue(torch.equal(d[0::3], torch.zeros(1000)))
        self.assertTrue(torch.equal(d[1::3], torch.ones(1000)))
        self.assertAlmostEqual(d[2::3].mean().item(), 0.5, delta=0.08)
        e = torch.empty(2, 1000, device=DEV).bernoulli_(torch.tensor([[0.0], [1.0]]).to(DEV)).cpu()
        self.assertTrue(torch.equal(e, torch.tensor([[0.0], [1.0]]).expand(2, 1000)))
        self.assertEqual(nerva_torch.fallback_ops(), [])


def forward_and_grads(device, fn, inputs, need_grad):
    """fn's result and the gradients of a weighted sum of it for the inputs marked."""
    args = []
    for t, g in zip(inputs, need_grad):
        t = t.detach().clone().to(device)
        args.append(t.requires_grad_() if g else t)
    out = fn(*args)
    if not any(need_grad):
        return [out.detach().cpu()]
    torch.manual_seed(9)
    weights = torch.randn(out.shape).to(device)
    (out * weights).sum().backward()
    return [out.detach().cpu()] + [a.grad.cpu() for a, g in zip(args, need_grad) if g]


class SlidingWindows(unittest.TestCase):
    """Convolution, pooling and group norm, forward and backward, against CPU torch."""

    def setUp(self):
        torch.manual_seed(6)

    def compare(self, fn, inputs, need_grad, rtol=1e-4, atol=1e-4):
        nerva_torch.reset_fallback_ops()
        got = forward_and_grads(DEV, fn, inputs, need_grad)
        want = forward_and_grads("cpu", fn, inputs, need_grad)
        for g, w in zip(got, want):
            torch.testing.assert_close(g, w, rtol=rtol, atol=atol)
        self.assertEqual(nerva_torch.fallback_ops(), [])

    def test_conv2d(self):
        F = torch.nn.functional
        cases = [  # (N, C, H, W), (O, C / groups, kh, kw), stride, padding, dilation, groups
            ((2, 3, 7, 6), (5, 3, 3, 3), 1, 1, 1, 1),
            ((1, 4, 9, 8), (6, 2, 3, 2), (2, 1), (1, 0), 1, 2),
            ((3, 2, 8, 9), (4, 2, 3, 3), 2, 2, (2, 1), 1),
            ((2, 6, 5, 5), (6, 1, 3, 3), 1, 1, 1, 6),  # depthwise
            ((2, 3, 5, 4), (7, 3, 1, 1), 1, 0, 1, 1),  # pointwise
        ]
        for x, w, stride, padding, dilation, groups in cases:
            for bias in (True, False):
                inputs = [torch.randn(x), torch.randn(w), torch.randn(w[0])]
                fn = (lambda a, b, c, s=stride, p=padding, d=dilation, g=groups, use=bias:
                      F.conv2d(a, b, c if use else None, s, p, d, g))
                self.compare(fn, inputs, [True, True, bias])

    def test_conv_strided_empty_and_1d(self):
        F = torch.nn.functional
        x = torch.randn(2, 9, 7, 3).permute(0, 3, 1, 2)  # non-contiguous (2, 3, 9, 7)
        self.compare(lambda a, b: F.conv2d(a, b, padding=1), [x, torch.randn(4, 3, 3, 3)],
                     [True, True])
        self.compare(lambda a, b, c: F.conv1d(a, b, c, stride=2, padding=1),
                     [torch.randn(2, 3, 11), torch.randn(4, 3, 3), torch.randn(4)],
                     [True, True, True])
        got = F.conv2d(torch.randn(0, 3, 5, 5, device=DEV), torch.randn(2, 3, 3, 3, device=DEV))
        self.assertEqual(got.shape, (0, 2, 3, 3))

    def test_conv_transpose(self):
        F = torch.nn.functional
        cases = [  # (N, C, H, W), (C, O / groups, kh, kw), stride, padding, out pad, dilation, groups
            ((2, 3, 5, 4), (3, 4, 3, 3), 1, 1, 0, 1, 1),
            ((1, 4, 4, 5), (4, 3, 3, 2), (2, 1), (1, 0), (1, 0), 1, 2),
            ((2, 2, 3, 4), (2, 2, 2, 3), 2, 0, 1, (2, 1), 1),
        ]
        for x, w, stride, padding, out_pad, dilation, groups in cases:
            for bias in (True, False):
                inputs = [torch.randn(x), torch.randn(w), torch.randn(w[1] * groups)]
                fn = (lambda a, b, c, s=stride, p=padding, o=out_pad, d=dilation, g=groups,
                      use=bias: F.conv_transpose2d(a, b, c if use else None, s, p, o, g, d))
                self.compare(fn, inputs, [True, True, bias])
        self.compare(lambda a, b, c: F.conv_transpose1d(a, b, c, stride=2, padding=1),
                     [torch.randn(2, 3, 6), torch.randn(3, 4, 3), torch.randn(4)],
                     [True, True, True])

    def test_scaled_dot_product_attention(self):
        sdpa = torch._C._nn._scaled_dot_product_attention
        q, k, v = torch.randn(2, 3, 5, 8), torch.randn(2, 3, 7, 8), torch.randn(2, 3, 7, 8)
        mask = torch.randn(5, 7) > -0.5
        mask[:, 0] = True  # every row keeps a key
        for m, causal in ((None, False), (mask, False), (None, True)):
            fn = (lambda a, b, c, m=m, causal=causal: sdpa(a, b, c, None if m is None else
                                                           m.to(a.device), 0.0, False, causal)[0])
            self.compare(fn, [q, k, v], [True, True, True])
        self.compare(lambda a, b, c: sdpa(a, b, c, None, 0.0, True, False)[1], [q, k, v],
                     [False, False, False])
        with torch.no_grad():
            self.compare(lambda a, b, c: sdpa(a, b, c, mask.to(a.device), 0.0, False, False)[0],
                         [q, k, v], [False, False, False])

    def test_max_pool(self):
        F = torch.nn.functional
        cases = [((2, 3, 8, 8), 2, None, 0, 1, False), ((1, 2, 9, 7), 3, 2, 1, 1, True),
                 ((2, 3, 9, 9), (3, 2), (2, 1), (1, 0), 2, False), ((3, 7, 5), 2, 1, 0, 1, False)]
        for shape, k, s, p, d, ceil in cases:
            fn = (lambda a, k=k, s=s, p=p, d=d, c=ceil:
                  F.max_pool2d(a, k, s, p, d, ceil_mode=c))
            self.compare(fn, [torch.randn(shape)], [True])
        x = torch.randn(2, 8, 8, 3).permute(0, 3, 1, 2)
        self.compare(lambda a: F.max_pool2d(a, 2), [x], [True])
        self.compare(lambda a: F.max_pool2d(a, 2, return_indices=True)[1].float(), [x], [False])
        self.compare(lambda a: F.max_pool2d(a, 2), [torch.randn(0, 3, 4, 4)], [False])

    def test_avg_and_adaptive_pool(self):
        F = torch.nn.functional
        cases = [((2, 3, 8, 8), 2, None, 0, False, True, None),
                 ((1, 2, 9, 7), 3, 2, 1, True, False, None),
                 ((2, 3, 7, 9), (3, 2), (2, 1), (1, 0), False, True, 5)]
        for shape, k, s, p, ceil, inc, div in cases:
            fn = (lambda a, k=k, s=s, p=p, c=ceil, i=inc, d=div:
                  F.avg_pool2d(a, k, s, p, c, i, d))
            self.compare(fn, [torch.randn(shape)], [True])
        x = torch.randn(2, 9, 7, 3).permute(0, 3, 1, 2)
        self.compare(lambda a: F.avg_pool2d(a, 3, 2), [x], [True])
        for size in ((3, 2), (4, 7), (1, 1)):
            self.compare(lambda a, s=size: F.adaptive_avg_pool2d(a, s), [x], [True])
        self.compare(lambda a: F.adaptive_avg_pool2d(a, 2), [torch.randn(3, 5, 6)], [True])
        for size in ((3, 2), (4, 7), (2, 2)):  # windows overlap for (4, 7) over 9 x 7
            self.compare(lambda a, s=size: F.adaptive_max_pool2d(a, s), [x], [True])
        self.compare(lambda a: F.adaptive_max_pool2d(a, 2, return_indices=True)[1].float(), [x],
                     [False])

    def test_group_norm(self):
        F = torch.nn.functional
        x = torch.randn(3, 7, 5, 6).permute(0, 3, 1, 2)  # non-contiguous (3, 6, 7, 5)
        self.compare(lambda a, w, b: F.group_norm(a, 3, w, b), [x, torch.randn(6), torch.randn(6)],
                     [True, True, True])
        self.compare(lambda a: F.group_norm(a, 2), [torch.randn(2, 4, 9)], [True])


class Indexing(unittest.TestCase):
    """Gathers, scatters, advanced indexing and embeddings against CPU torch."""

    def setUp(self):
        torch.manual_seed(8)

    def check(self, fn, *inputs):
        nerva_torch.reset_fallback_ops()
        got = fn(*[t.to(DEV) for t in inputs])
        want = fn(*[t.clone() for t in inputs])
        close(self, got, want)
        self.assertEqual(nerva_torch.fallback_ops(), [])

    def test_index_select_and_gather(self):
        a = torch.randn(5, 7)
        idx = torch.tensor([4, 0, 0, 2, 6])
        self.check(lambda x, i: x.index_select(1, i), a, idx)
        self.check(lambda x, i: x.index_select(0, i[:3]), a.t(), idx)  # non-contiguous
        self.check(lambda x, i: x.index_select(0, i), a, idx[:0])  # empty index
        g = torch.randint(0, 5, (3, 7))
        self.check(lambda x, i: x.gather(0, i), a, g)
        self.check(lambda x, i: x.gather(1, i), a.t(), g.t()[:, :3])
        self.check(lambda x, i: x.gather(1, i), a, torch.zeros(5, 0, dtype=torch.long))

    def test_scatter(self):
        a, src = torch.randn(4, 6), torch.randn(4, 6)
        # Distinct positions per column so that overwrites are deterministic.
        perm = torch.stack([torch.randperm(4) for _ in range(6)], 1)[:3]
        self.check(lambda x, i, s: x.scatter(0, i, s), a, perm, src)
        self.check(lambda x, i: x.scatter(0, i, 2.5), a, perm)
        self.check(lambda x, i, s: x.clone().scatter_(0, i, s), a, perm, src)
        dup = torch.randint(0, 6, (4, 9))
        big = torch.randn(4, 9)
        self.check(lambda x, i, s: x.scatter_add(1, i, s), a, dup, big)
        self.check(lambda x, i, s: x.t().scatter_add(0, i.t(), s.t()), a, dup, big)
        self.check(lambda x, i, s: x.scatter(1, i, s, reduce="multiply"), a, dup, big)
        for reduce, include_self in (("sum", False), ("prod", True), ("mean", False),
                                     ("amax", True), ("amin", False)):
            self.check(lambda x, i, s, r=reduce, inc=include_self:
                       x.scatter_reduce(1, i, s, r, include_self=inc), a, dup, big)
        self.check(lambda x, i, s: x.scatter_add(0, i, s), a, dup[:0], big[:0])

    def test_advanced_indexing(self):
        a = torch.randn(5, 6, 7)
        i, j = torch.tensor([4, 0, 2, 2]), torch.tensor([[1], [5], [0]])
        self.check(lambda x, p: x[p], a, i)
        self.check(lambda x, p, q: x[p, :, q], a, i, j)  # apart: broadcast dims first
        self.check(lambda x, p, q: x[:, p, q], a, i, j)  # adjacent
        self.check(lambda x, p: x.transpose(0, 2)[p], a, i)
        self.check(lambda x, m: x[m], a, torch.randn(5, 6) > 0)
        self.check(lambda x, p: x[p], a, i[:0])
        v = torch.randn(4, 7)
        self.check(lambda x, p, w: x.index_put((p,), w[0]), a[:, 0], i, v)
        self.check(lambda x, p, w: x.clone().index_put_((p,), w, accumulate=True), a[:, :, 0],
                   i, torch.randn(4, 6))
        self.check(lambda x, p, q, w: torch.ops.aten.index_put(x, [None, p, q], w, True), a, i, j,
                   torch.randn(3, 4))

        def masked_set(x, m):
            x = x.clone()
            x[m] = -1.0
            return x
        self.check(masked_set, a, torch.randn(5, 6, 7) > 0)
        self.check(lambda x, p, s: x.index_add(1, p, s, alpha=0.5), a, i, torch.randn(5, 4, 7))

    def test_index_gradients(self):
        a = torch.randn(6, 5)
        i = torch.tensor([3, 1, 3, 0, 5, 5])
        g = torch.randint(0, 6, (4, 5))
        for fn in (lambda x: x[i], lambda x: x.index_select(1, i[:4]), lambda x: x.gather(0, g),
                   lambda x: x[i, i[:1]]):
            got = forward_and_grads(DEV, fn, [a], [True])
            want = forward_and_grads("cpu", fn, [a], [True])
            for x, y in zip(got, want):
                torch.testing.assert_close(x, y, rtol=1e-4, atol=1e-5)

    def test_embedding(self):
        F = torch.nn.functional
        weight = torch.randn(10, 4)
        idx = torch.tensor([[1, 4, 4], [9, 0, 1]])
        for padding_idx, freq in ((None, False), (4, False), (None, True)):
            fn = (lambda w, p=padding_idx, f=freq:
                  F.embedding(idx.to(w.device), w, padding_idx=p, scale_grad_by_freq=f))
            got = forward_and_grads(DEV, fn, [weight], [True])
            want = forward_and_grads("cpu", fn, [weight], [True])
            for x, y in zip(got, want):
                torch.testing.assert_close(x, y, rtol=1e-4, atol=1e-5)


class Runtime(unittest.TestCase):
    """Views, copies, scalars, printing and the failure modes."""

    def test_views_alias(self):
        base = torch.zeros(4, 6, device=DEV)
        base.t()[2, 1] = 5.0
        base.narrow(1, 3, 2).fill_(2.0)
        base.view(-1)[0] = 7.0
        base.unfold(1, 2, 2)[3, 0, 1] = 9.0
        want = torch.zeros(4, 6)
        want.t()[2, 1] = 5.0
        want.narrow(1, 3, 2).fill_(2.0)
        want.view(-1)[0] = 7.0
        want.unfold(1, 2, 2)[3, 0, 1] = 9.0
        close(self, base, want)

    def test_copies_at_odd_offsets(self):
        host = torch.randn(37)
        dev = host.to(DEV)
        close(self, dev[3:30], host[3:30])           # device to host at an odd offset
        dev[5:12] = host[20:27]                      # host to device at an odd offset
        dev[13:20] = dev[1:8].clone()                # device to device, both odd
        host[5:12] = host[20:27]
        host[13:20] = host[1:8].clone()
        close(self, dev, host)
        m = torch.randn(5, 7)
        close(self, m.to(DEV)[1:, 1::2].contiguous(), m[1:, 1::2].contiguous())
        close(self, m.to(DEV).t().to(torch.int32), m.t().to(torch.int32))
        close(self, m.to(DEV).half().float(), m.half().float())

    def test_item_and_printing(self):
        x = torch.tensor([1.5, -2.0, 3.25], device=DEV)
        self.assertEqual(x[2].item(), 3.25)
        self.assertEqual(x.sum().item(), 2.75)
        text = repr(x)
        self.assertIn("1.5000", text)
        self.assertIn("device='privateuseone:0'", text)
        self.assertEqual(nerva_torch.device_count(), 1)
        self.assertEqual(torch.privateuseone.device_count(), 1)
        torch.privateuseone.synchronize()

    def test_float64_is_refused(self):
        with self.assertRaisesRegex(TypeError, "float64"):
            torch.zeros(3, dtype=torch.float64).to(DEV)

    def test_fallback_warns_or_fails(self):
        x = torch.randn(6, device=DEV)
        close(self, x.cumprod(0), x.cpu().cumprod(0))
        self.assertIn("aten::cumprod.out", nerva_torch.fallback_ops())
        os.environ["NERVA_TORCH_NO_FALLBACK"] = "1"
        try:
            with self.assertRaisesRegex(RuntimeError, "cumprod"):
                x.cumprod(0)
        finally:
            del os.environ["NERVA_TORCH_NO_FALLBACK"]


if __name__ == "__main__":
    unittest.main(verbosity=2)
