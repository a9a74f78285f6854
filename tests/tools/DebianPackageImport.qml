import QtQuick
import QtTest
import Quorlix

// Run by DebianPackage.cmake against the installed packages only: their QML folder as the import
// path, their libraries, and the demo scenario of quorlix-tools as the beacon source.
TestCase {
    name: "InstalledModule"

    BeaconModel {
        id: beacons
    }
    Component {
        id: pairingList
        PairingList {}
    }

    function test_module() {
        tryVerify(() => beacons.count > 0, 10000, "no beacon listed; error: " + beacons.error)
        // Hidden, so that it does not start looking for devices.
        verify(createTemporaryObject(pairingList, this, {visible: false}) !== null)
    }
}
