#!/usr/bin/env bash
# Example launch. Replace the pool and wallet with your own.
#   1 algorithm   2 pool host   3 pool port   4 wallet   5 password
#   6 forced clock in MHz (optional)   7 one device path to use alone (optional)
exec ./build/bin/ombry-miner ckb pool.example.org 3333 ckb1qexamplewalletaddress.rig1 x
