"""Training steps per second on nerva (privateuseone) beside PyTorch's CPU back-end.

Usage: PYTHONPATH=build/adapters/torch/python python3 adapters/torch/bench/bench_train.py
Each model trains the same steps on both devices; the nerva share of time goes to its
kernels and glue (device time is waited for at every step through loss.item())."""

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
    print("%-16s %12s %12s %8s  %s" % ("model", "cpu steps/s", "nerva steps/s", "ratio",
                                       "CPU fallbacks"))
    for name, make in (("mlp", mlp), ("normalised_mlp", normalised_mlp)):
        model, x, y, loss_fn = make()
        cpu = steps_per_second(model, x, y, loss_fn, "cpu", args.steps, args.warmup)
        nerva_torch.reset_fallback_ops()
        dev = steps_per_second(model, x, y, loss_fn, DEV, args.steps, args.warmup)
        print("%-16s %12.1f %12.1f %8.2f  %s" % (name, cpu, dev, dev / cpu,
                                                 ",".join(nerva_torch.fallback_ops()) or "none"))


if __name__ == "__main__":
    main()
