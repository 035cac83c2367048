scripts/package
sudo apt-get install ./build/package/package/*.deb
