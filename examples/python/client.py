"""Finds an echo device, sends it a text and prints what comes back."""

import sys

import lumora

text = sys.argv[1] if len(sys.argv) > 1 else "hello"
try:
    with lumora.Client("echo-client") as client:
        client.connect("echo-device")
        echoes = client.subscribe("echo")
        client.send(text.encode())
        block = echoes.get(timeout=10)
        print(f"{block.service}: {block.data.decode()}")
except lumora.Error as error:
    sys.exit(f"{error}; is an echo device running in this network?")
