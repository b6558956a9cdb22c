"""Training steps per second on nerva (privateuseone) beside PyTorch's CPU back-end.

Usage: PYTHONPATH=build/adapters/torch/python python3 adapters/torch/bench/bench_train.py
Each model trains the same steps on both devices (Adam). A second nerva run with
profiling on (every kernel waited for) splits a step into nerva kernels and device-side
copies, host transfers, and glue (PyTorch dispatch, autograd, Python and the backend)."""

import argparse
import copy
import time
import warnings

import torch
import nerva_torch

warnings.filterwarnings("ignore", message="nerva_torch")
DEV = torch.device("privateuseone", 0)


def mlp():
    model = torch.nn.Sequential(torch.nn.Linear(256, 512), torch.nn.ReLU(),
                                torch.nn.Linear(512, 512), torch.nn.ReLU(),
                                torch.nn.Linear(512, 10))
    return model, torch.randn(128, 256), torch.randint(0, 10, (128,)), \
        torch.nn.functional.cross_entropy


def normalised_mlp():
    model = torch.nn.Sequential(torch.nn.Linear(256, 512, bias=False), torch.nn.BatchNorm1d(512),
                                torch.nn.GELU(), torch.nn.Linear(512, 512),
                                torch.nn.LayerNorm(512), torch.nn.Tanh(),
                                torch.nn.Linear(512, 16))
    return model, torch.randn(128, 256), torch.randn(128, 16), torch.nn.functional.mse_loss


def transformer():
    model = torch.nn.TransformerEncoderLayer(128, 4, 256, dropout=0.0, batch_first=True,
                                             activation="gelu")
    return model, torch.randn(16, 32, 128), torch.randn(16, 32, 128), \
        torch.nn.functional.mse_loss


def cnn():
    model = torch.nn.Sequential(torch.nn.Conv2d(3, 16, 3, padding=1, bias=False),
                                torch.nn.BatchNorm2d(16), torch.nn.ReLU(), torch.nn.MaxPool2d(2),
                                torch.nn.Flatten(), torch.nn.Linear(16 * 16 * 16, 10))
    return model, torch.randn(32, 3, 32, 32), torch.randint(0, 10, (32,)), \
        torch.nn.functional.cross_entropy


def steps_per_second(model, x, y, loss_fn, device, steps, warmup):
    model = copy.deepcopy(model).to(device)
    opt = torch.optim.Adam(model.parameters(), lr=1e-3)
    x, y = x.to(device), y.to(device)

    def step():
        opt.zero_grad()
        loss = loss_fn(model(x), y)
        loss.backward()
        opt.step()
        return loss.item()

    for _ in range(warmup):
        step()
    start = time.perf_counter()
    for _ in range(steps):
        step()
    return steps / (time.perf_counter() - start)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--steps", type=int, default=20)
    parser.add_argument("--warmup", type=int, default=3)
    args = parser.parse_args()
    torch.manual_seed(0)
    print("%-16s %11s %13s %6s %8s %7s %6s  %s" % (
        "model", "cpu steps/s", "nerva steps/s", "ratio", "kernels", "copies", "glue",
        "CPU fallbacks"))
    for name, make in (("mlp", mlp), ("normalised_mlp", normalised_mlp),
                       ("transformer", transformer), ("cnn", cnn)):
        model, x, y, loss_fn = make()
        cpu = steps_per_second(model, x, y, loss_fn, "cpu", args.steps, args.warmup)
        nerva_torch.reset_fallback_ops()
        dev = steps_per_second(model, x, y, loss_fn, DEV, args.steps, args.warmup)
        fallbacks = ",".join(nerva_torch.fallback_ops()) or "none"
        torch.ops.nerva.set_profiling(True)
        torch.ops.nerva.reset_profile()
        start = time.perf_counter()
        profiled = steps_per_second(model, x, y, loss_fn, DEV, args.steps, 0)
        total = time.perf_counter() - start
        torch.ops.nerva.set_profiling(False)
        kernels, copies = torch.ops.nerva.profile()
        glue = max(total - kernels - copies, 0.0)
        print("%-16s %11.1f %13.1f %6.2f %7.0f%% %6.0f%% %5.0f%%  %s" % (
            name, cpu, dev, dev / cpu, 100 * kernels / total, 100 * copies / total,
            100 * glue / total, fallbacks))


if __name__ == "__main__":
    main()
