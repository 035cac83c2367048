@0xd0b1c3a2f4e59687;

interface Echo {
  call @0 (data :Data) -> (data :Data);
  bulk @1 (data :Data) -> (count :UInt64);
  post @2 (data :Data) -> stream;
}
