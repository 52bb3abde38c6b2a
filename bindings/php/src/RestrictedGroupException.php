<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * A change names a restricted group, which no client can change. Nothing was sent.
 */
final class RestrictedGroupException extends \InvalidArgumentException implements SettingsException
{
}
